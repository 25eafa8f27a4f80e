#include "serialloader.h"

namespace qorcalib {

SerialLoader::SerialLoader(std::function<bool()> unitPowered, QObject* parent)
    : QObject(parent), m_unitPowered(std::move(unitPowered))
{
    m_timer.setInterval(kTickMs);
    connect(&m_timer, &QTimer::timeout, this, &SerialLoader::tick);
}

bool SerialLoader::recognised(const QByteArray& image)
{
    // S-records: "S", a record type digit, then hexadecimal pairs.
    if (image.size() < 4 || image[0] != 'S' || image[1] < '0' || image[1] > '9')
        return false;
    for (int i = 2; i < std::min<int>(int(image.size()), 10); ++i)
        if (!std::isxdigit(static_cast<unsigned char>(image[i])))
            return false;
    return true;
}

QString SerialLoader::start(const QByteArray& image, quint64 owner,
                            std::function<void(double)> progress, std::function<void(int)> done)
{
    if (image.size() > kMaxImageBytes)
        return QStringLiteral("serial image of %1 bytes is larger than the unit takes (%2 bytes)")
            .arg(image.size())
            .arg(kMaxImageBytes);
    if (busy())
        return QStringLiteral("the serial link is loading another image");
    m_image = image;
    m_sent = 0;
    m_elapsedMs = 0;
    m_owner = owner;
    m_progress = std::move(progress);
    m_done = std::move(done);
    m_state = Loading;
    m_timer.start();
    return {};
}

void SerialLoader::tick()
{
    m_elapsedMs += kTickMs;
    if (!m_unitPowered())
        return finish(NoPower);
    if (m_elapsedMs < kHandshakeMs)
        return;
    if (m_sent == 0 && !recognised(m_image))
        return finish(Refused);
    m_sent =
        std::min<qint64>(m_image.size(), (m_elapsedMs - kHandshakeMs) * kBytesPerSecond / 1000 + 1);
    if (m_progress)
        m_progress(double(m_sent) / double(m_image.size()));
    if (m_sent >= m_image.size())
        finish(Loaded);
}

void SerialLoader::finish(State state)
{
    m_timer.stop();
    m_state = state;
    m_image.clear();
    m_progress = nullptr;
    if (auto done = std::exchange(m_done, nullptr))
        done(state);
}

void SerialLoader::dropOwner(quint64 owner)
{
    if (busy() && m_owner == owner) {
        m_done = nullptr;
        finish(Cancelled);
    }
}

} // namespace qorcalib
