// The reading loop the cantp commands share: trace messages from one descriptor until told to stop.
#pragma once

#include <functional>
#include <memory>

#include "libqbtrace/MessageBase.h"

/// Reads serialised trace messages from a descriptor on the calling thread until a stop
/// descriptor becomes readable, the input ends, a read fails or a handler asks to end.
///
/// Each whole message goes to `onMessage`, which takes ownership and returns false to end the
/// pump. Bytes the reader cannot parse (TraceMessageBuffer reports them once and drops them) go
/// to `onUnparsable`, if given; the pump goes on with the messages behind them. A poll()
/// interrupted by a signal is repeated; any other poll() failure ends the pump, so a closed
/// descriptor cannot make it spin.
///
/// Blocks in poll() between messages; allocates one message at a time. The descriptors are not
/// owned. Thread rules: one pump per descriptor; any thread.
class MessagePump {
  public:
    using MessageHandler = std::function<bool(std::unique_ptr<MessageBase>)>;
    using UnparsableHandler = std::function<void()>;

    static void run(int fd, int stopFd, const MessageHandler& onMessage,
                    const UnparsableHandler& onUnparsable = UnparsableHandler());
};
