#pragma once

#include <QByteArray>
#include <QString>

namespace qorcalib {

// The lines that open every connection, before it carries Qt Remote Objects.
//
// On the local socket:   server "QORCALIB/2 session-N\n", client "ATTACH\n".
// On TCP, inside TLS:    server "QORCALIB/2 session-N AUTH <nonce>\n",
//                        client "ATTACH <proof>\n"
// where <nonce> is 32 random bytes and <proof> HMAC-SHA256(secret, nonce + session name +
// certificate), both in hexadecimal, and certificate is the SHA-256 of the server's TLS
// certificate as the client received it (DER). The secret is shared by the server and its
// remote clients; a client without it gets no object at all, because the server remotes
// nothing before the proof is right. A proof is bound to the certificate: given to a middle man
// who presented its own certificate, it does not open the real server, which checks it against
// its own. The client pins each server's certificate the first time (pinPath()) and refuses a
// server that later presents another.
namespace handshake {

struct Greeting
{
    QByteArray session;
    QByteArray nonce; // empty on the local socket
};

QByteArray greetingLine(const QByteArray& session, const QByteArray& nonce);
// nullopt-like: an empty session when the line is not a greeting of this protocol.
Greeting parseGreeting(const QByteArray& line);

QByteArray proof(const QByteArray& secret, const QByteArray& nonce, const QByteArray& session,
                 const QByteArray& certificateDigest);
QByteArray attachLine(const QByteArray& proofHex);
// The proof in the client's answer (empty for a plain "ATTACH"); false when the line is not
// an answer at all.
bool parseAttach(const QByteArray& line, QByteArray* proofHex);
// Compares in a time that does not depend on where the two differ.
bool sameProof(const QByteArray& a, const QByteArray& b);

QByteArray newNonce();

// The server's secret for TCP clients: "qorcalib-server.secret" in the user's configuration
// folder (Qor/), readable by the user only. Created on first use.
QString secretPath();
// The secret, created when there is none yet; empty with *error set when it cannot be had.
QByteArray loadOrCreateSecret(QString* error);
// The secret when the file exists and is the user's own, else empty.
QByteArray loadSecret(const QString& path = secretPath());
// Whether a file is this user's own regular file, closed to everyone else: where a secret may
// be kept.
bool isPrivateFile(const QString& path);

// The certificates of the servers this user's clients have met: "qorcalib-servers.pinned" beside
// the secret, one line "HOST:PORT SHA256-HEX" each.
QString pinPath();
// The digest pinned for a server, empty when none is.
QByteArray pinnedDigest(const QString& path, const QString& server);
// Pins a digest for a server (first use); false with *error when the file cannot be written.
bool pin(const QString& path, const QString& server, const QByteArray& digest, QString* error);

} // namespace handshake

// The lock beside a local socket ("PATH.lock"), held by the server that listens there, from
// before it listens until it ends, so that two servers never share a path and a client can tell
// a server that is starting from none at all.
// The server's side: the lock's descriptor, kept open for the server's life; -1 with *error
// set when another server holds it.
int takeSocketLock(const QString& socketPath, QString* error);
// The client's side: whether a server holds the lock (runs, or is starting).
bool socketLockTaken(const QString& socketPath);

// The private folder for the local socket when the runtime folder is not set:
// "<temporary folder>/qorcalib-<uid>", created with mode 0700. An existing one is used only
// when it is a real folder (not a link), owned by this user and closed to everyone else;
// otherwise the path is empty and *error names the folder and what is wrong with it.
QString privateSocketFolder(QString* error);

} // namespace qorcalib
