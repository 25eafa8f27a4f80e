#pragma once

#include <QMetaType>
#include <QString>

#include <map>
#include <vector>

namespace qorcalib {

// What a client may call on each object class of a session: for every method index that the
// remote objects protocol uses (the order of the contract's SLOTs), the parameter types.
// Taken from the classes generated from the contract, so it cannot drift from what the
// server's sources accept.
class RemoteContract
{
public:
    struct Class
    {
        std::vector<std::vector<QMetaType>> methods;
    };

    // The contract of the server's automation interface.
    static const RemoteContract& server();

    // Null when the class is not part of the contract.
    const Class* find(const QString& className) const;
    QStringList classNames() const;

    void add(const QString& className, Class c) { m_classes[className] = std::move(c); }

private:
    std::map<QString, Class> m_classes;
};

} // namespace qorcalib
