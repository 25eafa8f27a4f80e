#pragma once

#include <QSslCertificate>
#include <QSslKey>
#include <QString>

#include <optional>

namespace qorcalib {

// The server's identity on TCP: a self-signed certificate and its private key, kept beside the
// secret for TCP clients ("qorcalib-server.crt", and "qorcalib-server.key" readable by this
// user only), made on first use. Clients pin the certificate the first time they connect, and
// bind their proof of the secret to it, so that a proof given to anyone else is worthless to
// the real server.
struct TlsIdentity
{
    QSslCertificate certificate;
    QSslKey key;
};

// The identity in `folder`; made there when neither file exists. nullopt with *error set when
// the files cannot be made, or are there but unusable (a key others can read is no key).
std::optional<TlsIdentity> loadOrCreateTlsIdentity(const QString& folder, QString* error);

} // namespace qorcalib
