#include "sdobustime.h"

#include "bittiming.h"
#include "sdoclient.h"
#include "sdoserver.h"

#include <deque>

namespace qorcalib {

double sdoBusTimeUs(bool upload, bool block, const QByteArray& data, int bitsPerSecond)
{
    struct Store : SdoObjectAccess
    {
        QByteArray value;
        quint32 upload(quint16, quint8, QByteArray* d) override
        {
            *d = value;
            return 0;
        }
        quint32 checkDownload(quint16, quint8, qint64) override { return 0; }
        quint32 download(quint16, quint8, const QByteArray& d) override
        {
            value = d;
            return 0;
        }
    } store;
    store.value = data;
    std::deque<std::pair<bool, CanFrame>> wire;
    SdoClient client([&](const CanFrame& f) { wire.push_back({true, f}); });
    SdoServer server(&store, [&](const CanFrame& f) { wire.push_back({false, f}); });
    server.setNodeId(1);
    client.setBlockTransfer(block);
    if (upload)
        client.startUpload(1, 0x2040, 0, 0);
    else
        client.startDownload(1, 0x2040, 0, data, 0);
    double us = 0;
    while (!wire.empty()) {
        auto [toServer, f] = wire.front();
        wire.pop_front();
        us += frameDurationUs(f, bitsPerSecond);
        if (toServer)
            server.onFrame(f, 0);
        else
            client.onFrame(f, 0);
    }
    return us;
}

} // namespace qorcalib
