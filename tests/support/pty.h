#pragma once

#include <QtCore>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

namespace tessel::test {

// A pseudo-terminal standing for a serial device: the console opens its device name, the test
// is the device at the other end.
class Pty
{
public:
    Pty()
    {
        m_master = posix_openpt(O_RDWR | O_NOCTTY);
        if (m_master < 0 || grantpt(m_master) != 0 || unlockpt(m_master) != 0)
            return;
        m_device = QString::fromLocal8Bit(ptsname(m_master));
        fcntl(m_master, F_SETFL, fcntl(m_master, F_GETFL) | O_NONBLOCK);
    }
    ~Pty() { closeDevice(); }
    Pty(const Pty&) = delete;
    Pty& operator=(const Pty&) = delete;

    bool ok() const { return m_master >= 0 && !m_device.isEmpty(); }
    QString device() const { return m_device; }
    int masterFd() const { return m_master; }
    // What the device sends. While the line is full, the program's events run, so that the
    // console can read what is waiting.
    bool send(const QByteArray& bytes, int timeoutMs = 10000)
    {
        QElapsedTimer clock;
        clock.start();
        qsizetype done = 0;
        while (done < bytes.size()) {
            const ssize_t n =
                ::write(m_master, bytes.constData() + done, size_t(bytes.size() - done));
            if (n > 0)
                done += n;
            else if (clock.elapsed() > timeoutMs)
                return false;
            else
                QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        }
        return true;
    }
    // What reached the device so far.
    QByteArray received(int waitMs = 0)
    {
        QByteArray all;
        if (waitMs > 0)
            wait(POLLIN, waitMs);
        char buffer[4096];
        ssize_t n;
        while ((n = ::read(m_master, buffer, sizeof buffer)) > 0)
            all.append(buffer, n);
        return all;
    }
    // The device goes away, as an adapter that is pulled out.
    void closeDevice()
    {
        if (m_master >= 0)
            ::close(m_master);
        m_master = -1;
    }

private:
    bool wait(short events, int ms)
    {
        pollfd p{m_master, events, 0};
        return ::poll(&p, 1, ms) > 0;
    }
    int m_master = -1;
    QString m_device;
};

} // namespace tessel::test
