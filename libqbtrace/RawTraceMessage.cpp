#include "libqbtrace/RawTraceMessage.h"

#include <utility>

RawTraceMessage::RawTraceMessage(msgid_t id, timeStamp_t ts, byteVec_t body)
    : MessageBase(id, ts), body(std::move(body)) {}

RawTraceMessage::~RawTraceMessage() = default;

MessageBase* RawTraceMessage::clone() const {
    return new RawTraceMessage(*this);
}

size_t RawTraceMessage::getSize() const {
    return body.size();
}

void RawTraceMessage::appendBody(byteVec_t& out) const {
    out.insert(out.end(), body.begin(), body.end());
}

std::ostream& RawTraceMessage::print(std::ostream& os) const {
    // "trace message id 0x<id> len <n>" and, if invalid, " invalid: <reason>".
    return MessageBase::print(os);
}
