#include "tlsidentity.h"

#include "handshake.h"

#include <QDir>
#include <QFile>
#include <QSaveFile>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>

namespace qorcalib {

namespace {

constexpr long kValidSeconds = 100L * 365 * 24 * 3600; // a bench PC outlives any renewal plan

template <typename T, void (*Free)(T*)> using Owned = std::unique_ptr<T, decltype([](T* p) {
                                                          Free(p);
                                                      })>;

QByteArray pemOf(const std::function<int(BIO*)>& write)
{
    Owned<BIO, BIO_free_all> bio(BIO_new(BIO_s_mem()));
    if (!bio || write(bio.get()) != 1)
        return {};
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return QByteArray(data, int(size));
}

// A P-256 key and a self-signed certificate for it, both as PEM; empty on failure.
std::pair<QByteArray, QByteArray> makeIdentity()
{
    Owned<EVP_PKEY, EVP_PKEY_free> key(EVP_EC_gen("P-256"));
    Owned<X509, X509_free> cert(X509_new());
    if (!key || !cert)
        return {};
    unsigned char serial[16];
    QFile random(QStringLiteral("/dev/urandom"));
    if (!random.open(QIODevice::ReadOnly) || random.read(reinterpret_cast<char*>(serial), 16) != 16)
        return {};
    serial[0] &= 0x7F; // a positive serial number
    Owned<BIGNUM, BN_free> number(BN_bin2bn(serial, sizeof serial, nullptr));
    X509_NAME* name = X509_get_subject_name(cert.get());
    const bool ok =
        number && X509_set_version(cert.get(), 2) == 1 &&
        BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(cert.get())) != nullptr &&
        X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr &&
        X509_gmtime_adj(X509_getm_notAfter(cert.get()), kValidSeconds) != nullptr &&
        X509_set_pubkey(cert.get(), key.get()) == 1 &&
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("qorcalib-server"), -1,
                                   -1, 0) == 1 &&
        X509_set_issuer_name(cert.get(), name) == 1 &&
        X509_sign(cert.get(), key.get(), EVP_sha256()) > 0;
    if (!ok)
        return {};
    const QByteArray keyPem = pemOf([&](BIO* bio) {
        return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
    const QByteArray certPem = pemOf([&](BIO* bio) { return PEM_write_bio_X509(bio, cert.get()); });
    return {keyPem, certPem};
}

bool writePrivate(const QString& path, const QByteArray& bytes, QString* error)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) ||
        !file.setPermissions(QFile::ReadOwner | QFile::WriteOwner) || file.write(bytes) < 0 ||
        !file.commit()) {
        *error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}

} // namespace

std::optional<TlsIdentity> loadOrCreateTlsIdentity(const QString& folder, QString* error)
{
    const QString keyPath = QDir(folder).filePath(QStringLiteral("qorcalib-server.key"));
    const QString certPath = QDir(folder).filePath(QStringLiteral("qorcalib-server.crt"));
    if (!QFile::exists(keyPath) && !QFile::exists(certPath)) {
        const auto [keyPem, certPem] = makeIdentity();
        if (keyPem.isEmpty() || certPem.isEmpty()) {
            *error = QStringLiteral("cannot make the server's TLS certificate");
            return std::nullopt;
        }
        QDir().mkpath(folder);
        if (!writePrivate(keyPath, keyPem, error) || !writePrivate(certPath, certPem, error))
            return std::nullopt;
    }
    if (!handshake::isPrivateFile(keyPath)) {
        *error = QStringLiteral("the server's TLS key %1 is unusable: it must be this user's own "
                                "file, readable by nobody else")
                     .arg(keyPath);
        return std::nullopt;
    }
    QFile keyFile(keyPath);
    QFile certFile(certPath);
    TlsIdentity identity;
    if (keyFile.open(QIODevice::ReadOnly))
        identity.key = QSslKey(keyFile.readAll(), QSsl::Ec);
    if (certFile.open(QIODevice::ReadOnly))
        identity.certificate = QSslCertificate(certFile.readAll());
    if (identity.key.isNull() || identity.certificate.isNull()) {
        *error = QStringLiteral("the server's TLS identity in %1 and %2 cannot be read; remove "
                                "both files and the server makes a new one (clients then have "
                                "to forget the old one)")
                     .arg(keyPath, certPath);
        return std::nullopt;
    }
    return identity;
}

} // namespace qorcalib
