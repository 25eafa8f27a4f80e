#include "benchport.h"

#include "canlink.h"

namespace tessel {

QString LinkBenchPort::initIo()
{
    return m_link->initIo();
}

QString LinkBenchPort::setOutput(int channel, bool state)
{
    return m_link->setOutput(channel, state);
}

QString LinkBenchPort::boardCommand(int command, int argument)
{
    QString error;
    m_link->boardCommand(command, argument, &error); // the status means nothing here
    return error;
}

QString LinkBenchPort::setBoardParam(int parameter, double value)
{
    return m_link->setBoardParam(parameter, value);
}

QString LinkBenchPort::acquire()
{
    return m_link->acquire();
}

QString LinkBenchPort::arm()
{
    return m_link->arm();
}

QString LinkBenchPort::readAnalog(int channel, double* value)
{
    QString error;
    if (const auto v = m_link->readAnalog(channel, &error))
        *value = *v;
    return error;
}

QString LinkBenchPort::readInput(int channel, bool* state)
{
    QString error;
    if (const auto v = m_link->readInput(channel, &error))
        *state = *v;
    return error;
}

bool LinkBenchPort::reachable() const
{
    return m_link->isConnected();
}

} // namespace tessel
