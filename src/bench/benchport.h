#pragma once

#include <QString>

namespace tessel {

class CanLink;

// What the bench windows ask of the test bench: the bench board's supplies and the fixture
// board's I/O. Every call answers with the error description, empty on success.
class BenchPort
{
public:
    virtual ~BenchPort() = default;
    virtual QString initIo() = 0;
    virtual QString setOutput(int channel, bool state) = 0;
    virtual QString boardCommand(int command, int argument) = 0;
    virtual QString setBoardParam(int parameter, double value) = 0;
    virtual QString acquire() = 0;
    virtual QString arm() = 0;
    virtual QString readAnalog(int channel, double* value) = 0;
    virtual QString readInput(int channel, bool* state) = 0;
    // False once the server is gone: a read-out stops instead of failing line by line.
    virtual bool reachable() const = 0;
};

// The bench of the CAN server the program's link reaches.
class LinkBenchPort : public BenchPort
{
public:
    explicit LinkBenchPort(CanLink* link) : m_link(link) {}
    QString initIo() override;
    QString setOutput(int channel, bool state) override;
    QString boardCommand(int command, int argument) override;
    QString setBoardParam(int parameter, double value) override;
    QString acquire() override;
    QString arm() override;
    QString readAnalog(int channel, double* value) override;
    QString readInput(int channel, bool* state) override;
    bool reachable() const override;

private:
    CanLink* m_link;
};

} // namespace tessel
