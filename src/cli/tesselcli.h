#pragma once

#include "canlink.h"

#include <QJsonObject>
#include <QStringList>
#include <QTextStream>

class QEventLoop;

namespace tessel {
class CanopenDecoder;
}

namespace tessel::cli {

// tessel-cli: the CAN server's services for line scripts, one subcommand a run, with exit codes
// a script can test (cliparse.h). It reaches the server exactly as Tessel does.
class TesselCli
{
public:
    TesselCli(QTextStream& out, QTextStream& err);
    // A result that could not be written to standard output (a full disk) makes the run fail
    // (exit 4); a reader that went away ends it by SIGPIPE.
    int run(const QStringList& args);

private:
    int runCommand(QStringList args);
    // Whether standard output took what was written; see run().
    bool outputWritten();
    int sdo(QStringList args);
    int nmt(QStringList args);
    int send(QStringList args);
    int dump(QStringList args);
    int lss(QStringList args);
    int upgrade(QStringList args);
    int replay(QStringList args);
    int bitrate(QStringList args);
    int sync(QStringList args);
    int sample(QStringList args);
    int decode(QStringList args);
    int monitor(QStringList args);
    int scan(QStringList args);
    int watch(QStringList args);
    // The frames the controller receives, each written as a candump line with the note that
    // annotate gives it ("-": the frame is not written), until the limits or an interrupt.
    struct StreamLimits
    {
        qint64 count = 0;     // frames written; 0: no limit
        double seconds = 0.0; // 0: no limit
    };
    int takeLimits(QStringList* args, StreamLimits* limits);
    // --eds FILE: the decoder names entries and reads PDOs by that EDS. -1 when it may go on.
    int takeDictionary(QStringList* args, CanopenDecoder* decoder);
    // --seconds S (0, the default: no limit); -1, or the exit status of a bad value.
    int takeSeconds(QStringList* args, double* seconds);
    // Runs the loop until its own end, S seconds (0: none), an interrupt or the server's loss;
    // -1 when it ended as asked, else the failure's exit status.
    int runUntilEnd(QEventLoop* loop, double seconds);
    int streamFrames(const StreamLimits& limits,
                     const std::function<QString(const qorcalib::CanFrame&)>& annotate);

    int bad(const QString& message);
    int fail(int code, const QString& message);
    // The link's error, with the exit status its kind calls for (the last call's kind, or one
    // a result carried).
    int linkFailure(const QString& error);
    int linkFailure(const QString& error, qorcalib::ErrorKind kind);
    bool wantsHelp(const QStringList& args, const QString& help);
    // Connects and readies the controller; an exit code on failure, else -1.
    int connectAndStart();
    // Sends a frame and waits until the bus took it; an exit code on failure, else -1.
    int sendFrame(quint16 id, const QByteArray& data, bool remote, int length);
    static constexpr int kSendWaitMs = 2000;
    static constexpr int kReplayDrainMs = 10000;
    // Waits until the controller has no frame of ours waiting; false on a time-out, or with
    // *error when the server could not be asked.
    bool waitUntilSent(int timeoutMs, QString* error);
    void print(const QJsonObject& json, const QString& text);
    QString takeOption(QStringList* args, const QString& name, const QString& fallback = {});

    QTextStream& m_out;
    QTextStream& m_err;
    CanLink m_link;
    QString m_server;
    int m_controller = 0;
    int m_timeoutMs = 0;
    bool m_json = false;
    QJsonObject m_context;  // what the running command found, for a failure's JSON object
    QString m_outputFailed; // why standard output failed, once it has
};

} // namespace tessel::cli
