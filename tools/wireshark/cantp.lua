-- Wireshark dissector for the qbcantp CAN transport protocol.
--
-- Install: copy this file into the personal Lua plugins folder (Help > About Wireshark >
-- Folders, "Personal Lua Plugins", e.g. ~/.local/lib/wireshark/plugins/), or load it for one
-- run with `tshark -X lua_script:tools/wireshark/cantp.lua -r capture.pcap`. docs/wireshark.md
-- describes the fields, the preference and the output.
--
-- What it does: a heuristic dissector on the CAN dissector. Frames whose identifier is in the
-- preference "cantp.ids" (default 0x7E0,0x7E8) are decoded as transport frames: kind, announced
-- length, sequence number, flow-control code, padding, protocol errors (as expert info), and on
-- the frame that completes a payload the reassembled payload with the frame numbers it came
-- from. Frames of other identifiers, remote frames, error frames and CAN FD frames are left
-- to other dissectors.
--
-- Reassembly is the one of `cantp decode` (tools/cantp/TransportDecoder): one transfer per
-- identifier (and capture interface); a payload ends at its announced length, padding is not
-- taken; a frame that carries fewer bytes than its place needs ends the transfer; a single or
-- first frame drops a transfer left open; invalid and flow-control frames do not touch
-- reassembly. The error texts are the decoder's, word for word, so that the two views can be
-- compared frame by frame (`cantp decode --fields`).
--
-- Wireshark dissects each frame once in order on the first pass and again whenever it likes
-- (a click, a filter, tshark -2). Reassembly therefore runs only the first time a frame is
-- seen and stores the result per frame number; every later dissection shows the stored result
-- and leaves the reassembly state alone. The state is dropped when a capture is (re)loaded
-- (cantp.init).
--
-- Written for Wireshark 4.0 and later (Lua 5.2: no bit operators, so nibbles are taken with
-- arithmetic).

local cantp = Proto("cantp", "CAN transport (qbcantp)")

local KIND_NAMES = {
    [0] = "single frame",
    [1] = "first frame",
    [2] = "consecutive frame",
    [3] = "flow control",
}
for nibble = 4, 15 do
    KIND_NAMES[nibble] = "unknown"
end

local FC_NAMES = {
    [0] = "CTP_FC_NOT_READY_TO_RECEIVE",
    [1] = "CTP_FC_READY_TO_RECEIVE",
    [2] = "CTP_FC_NOT_ACKNOWLEDGE",
    [3] = "CTP_FC_ACKNOWLEDGE",
}
local FC_SHORT = {
    [0] = "not-ready-to-receive",
    [1] = "ready-to-receive",
    [2] = "not-acknowledge",
    [3] = "acknowledge",
}

local f = {
    kind = ProtoField.uint8("cantp.kind", "Frame kind", base.DEC, KIND_NAMES,
                            nil, "High nibble of DATA[0]"),
    len = ProtoField.uint16("cantp.len", "Announced length", base.DEC, nil, nil,
                            "Payload length announced by a single or first frame"),
    sn = ProtoField.uint8("cantp.sn", "Sequence number", base.DEC, nil, nil,
                          "Sequence number of a consecutive frame (0 after the first frame)"),
    fc = ProtoField.uint8("cantp.fc", "Flow-control code", base.DEC, FC_NAMES),
    padding = ProtoField.bytes("cantp.padding", "Padding", base.NONE,
                               "Bytes after the PCI and payload of the frame"),
    error = ProtoField.string("cantp.error", "Protocol error"),
    payload_len = ProtoField.uint16("cantp.payload.len", "Payload length", base.DEC),
    payload = ProtoField.bytes("cantp.payload", "Payload", base.NONE,
                               "The reassembled payload, on the frame that completes it"),
    payload_frame = ProtoField.framenum("cantp.payload.frame", "Payload frame", base.NONE,
                                        frametype.NONE, nil,
                                        "A frame the payload came from"),
}
cantp.fields = { f.kind, f.len, f.sn, f.fc, f.padding, f.error, f.payload_len, f.payload,
                 f.payload_frame }

local e = {
    out_of_place = ProtoExpert.new("cantp.expert.out_of_place",
                                   "Consecutive frame out of place",
                                   expert.group.SEQUENCE, expert.severity.ERROR),
    sequence = ProtoExpert.new("cantp.expert.sequence", "Wrong sequence number",
                               expert.group.SEQUENCE, expert.severity.ERROR),
    unknown_kind = ProtoExpert.new("cantp.expert.unknown_kind", "Invalid or unknown frame kind",
                                   expert.group.PROTOCOL, expert.severity.ERROR),
    during_transfer = ProtoExpert.new("cantp.expert.during_transfer",
                                      "Single or first frame during a transfer",
                                      expert.group.SEQUENCE, expert.severity.ERROR),
    malformed = ProtoExpert.new("cantp.expert.malformed",
                                "Frame too short or length out of range",
                                expert.group.MALFORMED, expert.severity.ERROR),
    complete = ProtoExpert.new("cantp.expert.complete", "Payload complete",
                               expert.group.REASSEMBLE, expert.severity.CHAT),
}
cantp.experts = { e.out_of_place, e.sequence, e.unknown_kind, e.during_transfer, e.malformed,
                  e.complete }

cantp.prefs.ids = Pref.string("Transport identifiers", "0x7E0,0x7E8",
    "CAN identifiers that carry the transport, e.g. 0x7E0,0x7E8 or 0x700-0x7FF " ..
    "(hexadecimal with 0x, or decimal); empty for every identifier")

local can_id = Field.new("can.id")
local can_xtd = Field.new("can.flags.xtd")
local can_rtr = Field.new("can.flags.rtr")
local can_err = Field.new("can.flags.err")
local interface_id = Field.new("frame.interface_id")
-- Present only in CAN FD frames, which the CAN dissector hands to the same heuristic list.
local canfd_brs = Field.new("canfd.flags.brs")

-- Identifier ranges from the preference; nil means every identifier.
local id_ranges = nil
local id_text = nil

local function parse_id(text)
    if text:match("^0[xX]%x+$") then
        return tonumber(text:sub(3), 16)
    elseif text:match("^%d+$") then
        return tonumber(text, 10)
    end
    return nil
end

local function parse_ranges(text)
    local ranges = {}
    local compact = text:gsub("%s", "")
    if compact == "" then
        return nil
    end
    for item in (compact .. ","):gmatch("([^,]*),") do
        local low_text, high_text = item:match("^([^-]+)-([^-]+)$")
        local low, high
        if low_text then
            low, high = parse_id(low_text), parse_id(high_text)
        else
            low = parse_id(item)
            high = low
        end
        if low == nil or high == nil or low > high or high > 0x1FFFFFFF then
            error("cantp.ids: \"" .. item .. "\" is not an identifier (0x7E0, 2016) " ..
                  "or a range (0x700-0x7FF)")
        end
        ranges[#ranges + 1] = { low, high }
    end
    return ranges
end

local ids_valid = true

local function selected(id)
    if id_text ~= cantp.prefs.ids then
        id_text = cantp.prefs.ids
        local ok, ranges = pcall(parse_ranges, id_text)
        ids_valid = ok
        if ok then
            id_ranges = ranges
        else
            -- A list that cannot be read selects nothing (said once), rather than everything.
            report_failure(tostring(ranges))
        end
    end
    if not ids_valid then
        return false
    end
    if id_ranges == nil then
        return true
    end
    for _, range in ipairs(id_ranges) do
        if id >= range[1] and id <= range[2] then
            return true
        end
    end
    return false
end

-- Reassembly state of the first pass, and the result of each frame by its number.
local open_transfers = {}
local results = {}

function cantp.init()
    open_transfers = {}
    results = {}
    id_text = nil
end

function cantp.prefs_changed()
    id_text = nil
end

local function byte_count(n, noun)
    return tostring(n) .. " " .. noun .. (n == 1 and "" or "s")
end

local function hex_of(bytes, from, to)
    local parts = {}
    for i = from, to do
        parts[#parts + 1] = string.format("%02x", bytes[i])
    end
    return table.concat(parts)
end

local function identifier_text(id, extended)
    return extended and string.format("%08X", id) or string.format("%03X", id)
end

-- Decodes one frame on the first pass; `bytes` is indexed from 0 like DATA.
local function decode(key, bytes, length, number)
    local r = { errors = {} }
    local function fail(category, message)
        r.errors[#r.errors + 1] = { category = category, text = message }
    end
    local function drop_open(what)
        local t = open_transfers[key]
        if t then
            fail("during_transfer", what .. " while a transfer is open (" .. #t.bytes ..
                 " of " .. byte_count(t.announced, "byte") .. " dropped)")
            open_transfers[key] = nil
        end
    end
    local function deliver(payload, frames)
        r.payload = payload
        r.payload_frames = frames
    end

    if length == 0 then
        r.info = "invalid no data byte"
        fail("malformed", "frame without data byte")
        return r
    end
    local pci = bytes[0]
    local kind = math.floor(pci / 16)
    local param = pci % 16
    r.kind = kind

    if kind == 3 then
        r.fc = param
        r.info = "FC " .. (FC_SHORT[param] or ("code=" .. param))
        if length > 1 then
            r.padding = { 1, length - 1, hex_of(bytes, 1, length - 1) }
        end
    elseif pci == 0 then
        r.info = "invalid DATA[0]=0x00"
        fail("unknown_kind", "invalid frame: DATA[0]=0x00")
    elseif kind == 0 then
        r.len = param
        r.info = "single len=" .. param
        drop_open("single frame")
        local carried = length - 1
        if param > carried then
            fail("malformed", "single frame announces " .. byte_count(param, "byte") ..
                 ", carries " .. carried)
        else
            if 1 + param < length then
                r.padding = { 1 + param, length - 1 - param, hex_of(bytes, 1 + param, length - 1) }
            end
            local payload = {}
            for i = 1, param do
                payload[#payload + 1] = bytes[i]
            end
            deliver(payload, { number })
        end
    elseif kind == 1 then
        if length < 2 then
            r.info = "invalid 1 byte, PCI needs 2"
            fail("malformed", "first frame of 1 byte: its PCI needs 2")
            return r
        end
        local announced = param * 256 + bytes[1]
        r.len = announced
        r.info = "first len=" .. announced
        drop_open("first frame")
        if announced < 8 then
            fail("malformed", "first frame announces " .. byte_count(announced, "byte") ..
                 ": a first frame starts a payload of 8 bytes or more")
        elseif length - 2 < 6 then
            fail("malformed", "first frame carries " .. byte_count(length - 2, "payload byte") ..
                 ", needs 6")
        else
            local t = { announced = announced, next = 0, bytes = {}, frames = { number } }
            for i = 2, 7 do
                t.bytes[#t.bytes + 1] = bytes[i]
            end
            open_transfers[key] = t
        end
    elseif kind == 2 then
        r.sn = param
        r.info = "CF sn=" .. param
        local t = open_transfers[key]
        if t == nil then
            fail("out_of_place", "consecutive frame out of place (no first frame)")
            return r
        end
        local dropped = " (" .. #t.bytes .. " of " .. byte_count(t.announced, "byte") ..
                        " dropped)"
        if param ~= t.next then
            fail("sequence", "wrong sequence number: got " .. param .. ", expected " .. t.next ..
                 dropped)
            open_transfers[key] = nil
            return r
        end
        local needed = math.min(7, t.announced - #t.bytes)
        local carried = length - 1
        if carried < needed then
            fail("malformed", "consecutive frame carries " ..
                 byte_count(carried, "payload byte") .. ", needs " .. needed .. dropped)
            open_transfers[key] = nil
            return r
        end
        t.next = (t.next + 1) % 16
        for i = 1, needed do
            t.bytes[#t.bytes + 1] = bytes[i]
        end
        t.frames[#t.frames + 1] = number
        if 1 + needed < length then
            r.padding = { 1 + needed, length - 1 - needed, hex_of(bytes, 1 + needed, length - 1) }
        end
        if #t.bytes == t.announced then
            deliver(t.bytes, t.frames)
            open_transfers[key] = nil
        end
    else
        r.info = string.format("invalid unknown kind 0x%X", kind)
        fail("unknown_kind", string.format("unknown frame kind 0x%X", kind))
    end
    return r
end

-- Shows the result `r` of a frame whose data is `tvb` (possibly empty).
local function show(r, tvb, pinfo, tree, id, extended)
    local info = identifier_text(id, extended) .. " " .. r.info
    if r.payload then
        info = info .. "; payload " .. byte_count(#r.payload, "byte") .. " complete"
    end
    for _, err in ipairs(r.errors) do
        info = info .. " [" .. err.text .. "]"
    end
    pinfo.cols.protocol = "CANTP"
    pinfo.cols.info:set(info)

    local whole = tvb:len() > 0 and tvb() or nil
    local subtree = whole and tree:add(cantp, whole) or tree:add(cantp)
    subtree:append_text(", " .. r.info)
    if r.kind ~= nil then
        subtree:add(f.kind, tvb(0, 1), r.kind)
    end
    if r.len ~= nil then
        subtree:add(f.len, tvb(0, r.kind == 1 and 2 or 1), r.len)
    end
    if r.sn ~= nil then
        subtree:add(f.sn, tvb(0, 1), r.sn)
    end
    if r.fc ~= nil then
        subtree:add(f.fc, tvb(0, 1), r.fc)
    end
    if r.padding then
        subtree:add(f.padding, tvb(r.padding[1], r.padding[2]))
    end
    for _, err in ipairs(r.errors) do
        local item = whole and subtree:add(f.error, whole, err.text) or subtree:add(f.error, err.text)
        item:add_proto_expert_info(e[err.category], err.text)
    end
    if r.payload then
        local hex = {}
        for i, b in ipairs(r.payload) do
            hex[i] = string.format("%02x", b)
        end
        local payload_tvb = ByteArray.new(table.concat(hex)):tvb("Reassembled CAN transport payload")
        local item = subtree:add(f.payload_len, #r.payload)
        item:add_proto_expert_info(e.complete, "payload " .. byte_count(#r.payload, "byte") ..
                                   " complete from " .. byte_count(#r.payload_frames, "frame"))
        subtree:add(f.payload, payload_tvb())
        for _, number in ipairs(r.payload_frames) do
            subtree:add(f.payload_frame, number)
        end
    end
end

-- The CAN header of the frame being dissected: identifier, extended flag, and whether it is a
-- data frame the transport may use.
local function can_header()
    local id = can_id()
    if id == nil then
        return nil
    end
    local rtr = can_rtr()
    local err = can_err()
    if (rtr and rtr.value) or (err and err.value) or canfd_brs() ~= nil then
        return nil
    end
    local xtd = can_xtd()
    return id.value, xtd ~= nil and xtd.value
end

local function transfer_key(id, extended)
    local iface = interface_id()
    return (iface and tostring(iface.value) or "") .. (extended and "x" or "s") .. tostring(id)
end

local function dissect_frame(tvb, pinfo, tree, id, extended)
    local length = tvb:len()
    -- Computed once per frame, the first time it is seen: on the first pass in order. (tshark
    -- -2 calls no heuristic dissector on its first pass; its second pass, in order, then
    -- computes.)
    if results[pinfo.number] == nil then
        local bytes = {}
        for i = 0, length - 1 do
            bytes[i] = tvb(i, 1):uint()
        end
        results[pinfo.number] = decode(transfer_key(id, extended), bytes, length, pinfo.number)
    end
    local r = results[pinfo.number]
    if r then
        show(r, tvb, pinfo, tree, id, extended)
    end
end

local function heuristic(tvb, pinfo, tree)
    -- Classic frames only: more than 8 bytes is a CAN FD frame.
    if tvb:len() > 8 then
        return false
    end
    local id, extended = can_header()
    if id == nil or not selected(id) then
        return false
    end
    dissect_frame(tvb, pinfo, tree, id, extended)
    return true
end

cantp:register_heuristic("can", heuristic)
