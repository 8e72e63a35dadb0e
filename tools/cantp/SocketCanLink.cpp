#include "SocketCanLink.h"

#include "libqbtrace/CANTransportTraceMessage.h"

SocketCanLink::SocketCanLink(const Settings& settings, CANTransportThread::delstatus_t onStatus,
                             int connectionFd)
    : transport(settings.debug), sendId(settings.sendId) {
    CanRawSocket::Options options;
    options.peers = settings.peers;
    options.sendBufferBytes = settings.sendBufferBytes;
    options.receiveBufferBytes = settings.receiveBufferBytes;
    CanRawSocket socket = CanRawSocket::open(settings.interfaceName, options);
    transport.setSendCANid(settings.sendId);
    transport.setDelegate(onStatus);
    transport.open(appReadFd, appWriteFd);
    inputWriter.reset(new TraceMessageWriter(appWriteFd));
    canProxy.reset(new SocketCanProxy(std::move(socket), *inputWriter, settings.debug));
    transport.setConnection(connectionFd >= 0 ? connectionFd : canProxy->proxyFd());
}

SocketCanLink::~SocketCanLink() {
    canProxy->stop();
    transport.stop();
}

void SocketCanLink::start() {
    canProxy->start();
    transport.start();
}

bool SocketCanLink::sendPayload(const byteVec_t& payload) {
    CANTransportTraceMessage msg(0, sendId, payload.begin(), payload.end(), CT_STANDARD);
    return inputWriter->write(msg);
}
