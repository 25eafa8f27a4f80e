#include "handshake.h"

#include "canmsg.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMessageAuthenticationCode>
#include <QRandomGenerator>
#include <QSaveFile>
#include <QStandardPaths>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qorcalib {

namespace handshake {

namespace {
constexpr int kNonceBytes = 32;
constexpr int kSecretBytes = 32;
const QByteArray kAuth = QByteArrayLiteral("AUTH");
} // namespace

QByteArray greetingLine(const QByteArray& session, const QByteArray& nonce)
{
    QByteArray line = QByteArray(kGreeting) + ' ' + session;
    if (!nonce.isEmpty())
        line += ' ' + kAuth + ' ' + nonce.toHex();
    return line + '\n';
}

Greeting parseGreeting(const QByteArray& line)
{
    const QList<QByteArray> words = line.trimmed().split(' ');
    Greeting g;
    if (words.size() == 2 && words[0] == kGreeting) {
        g.session = words[1];
    } else if (words.size() == 4 && words[0] == kGreeting && words[2] == kAuth) {
        const QByteArray nonce = QByteArray::fromHex(words[3]);
        if (nonce.size() == kNonceBytes) {
            g.session = words[1];
            g.nonce = nonce;
        }
    }
    return g;
}

QByteArray proof(const QByteArray& secret, const QByteArray& nonce, const QByteArray& session,
                 const QByteArray& certificateDigest)
{
    return QMessageAuthenticationCode::hash(nonce + session + certificateDigest, secret,
                                            QCryptographicHash::Sha256)
        .toHex();
}

QByteArray attachLine(const QByteArray& proofHex)
{
    return proofHex.isEmpty() ? QByteArray(kAttach) + '\n'
                              : QByteArray(kAttach) + ' ' + proofHex + '\n';
}

bool parseAttach(const QByteArray& line, QByteArray* proofHex)
{
    const QList<QByteArray> words = line.trimmed().split(' ');
    if (words.isEmpty() || words[0] != kAttach || words.size() > 2)
        return false;
    *proofHex = words.size() == 2 ? words[1] : QByteArray();
    return true;
}

bool sameProof(const QByteArray& a, const QByteArray& b)
{
    if (a.size() != b.size())
        return false;
    unsigned char diff = 0;
    for (qsizetype i = 0; i < a.size(); ++i)
        diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

QByteArray newNonce()
{
    QByteArray nonce(kNonceBytes, Qt::Uninitialized);
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32*>(nonce.data()),
                                          kNonceBytes / 4);
    return nonce;
}

QString secretPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/Qor/qorcalib-server.secret");
}

bool isPrivateFile(const QString& path)
{
    struct stat st;
    const QByteArray native = QFile::encodeName(path);
    return ::lstat(native.constData(), &st) == 0 && S_ISREG(st.st_mode) &&
           st.st_uid == ::getuid() && (st.st_mode & 077) == 0;
}

QString pinPath()
{
    return QFileInfo(secretPath()).absolutePath() + QStringLiteral("/qorcalib-servers.pinned");
}

QByteArray pinnedDigest(const QString& path, const QString& server)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray key = server.toUtf8();
    while (!file.atEnd()) {
        const QList<QByteArray> words = file.readLine(1024).trimmed().split(' ');
        if (words.size() == 2 && words[0] == key)
            return QByteArray::fromHex(words[1]);
    }
    return {};
}

bool pin(const QString& path, const QString& server, const QByteArray& digest, QString* error)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::Append) ||
        !file.setPermissions(QFile::ReadOwner | QFile::WriteOwner) ||
        file.write(server.toUtf8() + ' ' + digest.toHex() + '\n') < 0) {
        *error = QStringLiteral("cannot pin the server's certificate in %1: %2")
                     .arg(path, file.errorString());
        return false;
    }
    return true;
}

QByteArray loadSecret(const QString& path)
{
    // A secret others can read, or someone else's file, is no secret.
    if (!isPrivateFile(path))
        return {};
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray secret = QByteArray::fromHex(file.readAll().trimmed());
    return secret.size() >= 16 ? secret : QByteArray();
}

QByteArray loadOrCreateSecret(QString* error)
{
    const QString path = secretPath();
    if (QFile::exists(path)) {
        const QByteArray secret = loadSecret(path);
        if (secret.isEmpty())
            *error = QStringLiteral("the secret for TCP clients in %1 is unusable: it must be "
                                    "this user's own file, readable by nobody else, holding at "
                                    "least 16 bytes in hexadecimal")
                         .arg(path);
        return secret;
    }
    QDir().mkpath(QFileInfo(path).absolutePath());
    QByteArray secret(kSecretBytes, Qt::Uninitialized);
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32*>(secret.data()),
                                          kSecretBytes / 4);
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) ||
        !file.setPermissions(QFile::ReadOwner | QFile::WriteOwner) ||
        file.write(secret.toHex() + '\n') < 0 || !file.commit()) {
        *error = QStringLiteral("cannot create the secret for TCP clients in %1: %2")
                     .arg(path, file.errorString());
        return {};
    }
    return secret;
}

} // namespace handshake

int takeSocketLock(const QString& socketPath, QString* error)
{
    const QByteArray path = QFile::encodeName(socketPath + QStringLiteral(".lock"));
    const int fd = ::open(path.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        *error = QStringLiteral("cannot make the lock %1.lock: %2")
                     .arg(socketPath, QString::fromLocal8Bit(std::strerror(errno)));
        return -1;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        *error = QStringLiteral("another qorcalib-server already runs on %1").arg(socketPath);
        return -1;
    }
    return fd;
}

bool socketLockTaken(const QString& socketPath)
{
    const QByteArray path = QFile::encodeName(socketPath + QStringLiteral(".lock"));
    const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool taken = ::flock(fd, LOCK_SH | LOCK_NB) != 0;
    ::close(fd);
    return taken;
}

QString privateSocketFolder(QString* error)
{
    const QString folder =
        QDir::tempPath() + QStringLiteral("/qorcalib-%1").arg(quint64(::getuid()));
    const QByteArray native = QFile::encodeName(folder);
    if (::mkdir(native.constData(), 0700) != 0 && errno != EEXIST) {
        *error = QStringLiteral("cannot create the socket folder %1: %2")
                     .arg(folder, QString::fromLocal8Bit(std::strerror(errno)));
        return {};
    }
    struct stat st;
    if (::lstat(native.constData(), &st) != 0) {
        *error = QStringLiteral("cannot inspect the socket folder %1: %2")
                     .arg(folder, QString::fromLocal8Bit(std::strerror(errno)));
        return {};
    }
    QString wrong;
    if (S_ISLNK(st.st_mode))
        wrong = QStringLiteral("it is a symbolic link");
    else if (!S_ISDIR(st.st_mode))
        wrong = QStringLiteral("it is not a folder");
    else if (st.st_uid != ::getuid())
        wrong = QStringLiteral("it belongs to user %1").arg(st.st_uid);
    else if ((st.st_mode & 077) != 0)
        wrong = QStringLiteral("others may use it (mode %1)")
                    .arg(QString::number(st.st_mode & 0777, 8));
    if (!wrong.isEmpty()) {
        *error = QStringLiteral("the socket folder %1 is not safe: %2; remove it, or set "
                                "XDG_RUNTIME_DIR to a private folder")
                     .arg(folder, wrong);
        return {};
    }
    return folder;
}

} // namespace qorcalib
