#pragma once

#include "benchport.h"

#include <QMap>
#include <QStringList>

namespace tessel::test {

// A bench that records every call as a short text ("init", "out 5 1", "cmd 10", "param 26 48",
// "acquire", "arm", "analog 3", "input 0") and answers from its tables; a call named in
// `refuse` fails with that description.
class RecordingBench : public BenchPort
{
public:
    QStringList calls;
    QMap<QString, QString> refuse; // call text -> error
    QMap<int, double> analog;
    QMap<int, bool> inputs;
    bool serverThere = true;

    QString initIo() override { return record(QStringLiteral("init")); }
    QString setOutput(int channel, bool state) override
    {
        return record(QStringLiteral("out %1 %2").arg(channel).arg(state ? 1 : 0));
    }
    QString boardCommand(int command, int argument) override
    {
        return record(argument == 0 ? QStringLiteral("cmd %1").arg(command)
                                    : QStringLiteral("cmd %1 %2").arg(command).arg(argument));
    }
    QString setBoardParam(int parameter, double value) override
    {
        return record(QStringLiteral("param %1 %2").arg(parameter).arg(value, 0, 'g', 12));
    }
    QString acquire() override { return record(QStringLiteral("acquire")); }
    QString arm() override { return record(QStringLiteral("arm")); }
    QString readAnalog(int channel, double* value) override
    {
        *value = analog.value(channel);
        return record(QStringLiteral("analog %1").arg(channel));
    }
    QString readInput(int channel, bool* state) override
    {
        *state = inputs.value(channel);
        return record(QStringLiteral("input %1").arg(channel));
    }
    bool reachable() const override { return serverThere; }

private:
    QString record(const QString& call)
    {
        calls << call;
        return refuse.value(call);
    }
};

} // namespace tessel::test
