#include "MessagePump.h"

#include <poll.h>

#include <cerrno>

#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbutil/QBException.h"

void MessagePump::run(int fd, int stopFd, const MessageHandler& onMessage,
                      const UnparsableHandler& onUnparsable) {
    TraceMessageBuffer buffer(fd, nullptr);
    for (;;) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {stopFd, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            return;
        }
        if (buffer.read() < 0) {
            return;
        }
        for (;;) {
            std::unique_ptr<MessageBase> msg;
            try {
                msg.reset(buffer.getNextMessage());
            } catch (const QBException&) {
                if (onUnparsable) {
                    onUnparsable();
                }
                continue;
            }
            if (!msg) {
                break;
            }
            if (!onMessage(std::move(msg))) {
                return;
            }
        }
    }
}
