#include "packetrules.h"

#include <QDataStream>
#include <QIODevice>
#include <QMetaProperty>

#include <cstring>

namespace qorcalib {

void packet::prepare(QDataStream& stream)
{
    stream.setVersion(QDataStream::Qt_6_2);
    stream.setByteOrder(QDataStream::LittleEndian);
}

namespace {

// Records of the contract hold plain values; deeper nesting is not something a client sends.
constexpr int kMaxNesting = 4;
// Longer than any type name of the contract.
constexpr quint32 kMaxTypeName = 128;

// Echoed client text is cut, so that a log line stays a line.
QString shown(const QString& text)
{
    constexpr int kShown = 64;
    return text.size() <= kShown ? text : text.left(kShown) + QStringLiteral("...");
}

bool isPlainValue(QMetaType type)
{
    switch (type.id()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::Float:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::UChar:
    case QMetaType::QString:
    case QMetaType::QByteArray:
        return true;
    default:
        return false;
    }
}

QString checkVariant(QDataStream& in, QMetaType expected, int depth);

// The value of a variant whose type has been checked. Strings and byte arrays are read in
// steps as their bytes arrive, so a declared length larger than the packet costs nothing.
QString checkValue(QDataStream& in, QMetaType expected, int depth)
{
    const QMetaObject* meta = expected.metaObject();
    if ((expected.flags() & QMetaType::IsGadget) && meta) {
        if (depth >= kMaxNesting)
            return QStringLiteral("records nested too deeply");
        for (int i = 0; i < meta->propertyCount(); ++i) {
            const QString error = checkVariant(in, meta->property(i).metaType(), depth + 1);
            if (!error.isEmpty())
                return error;
        }
        return {};
    }
    if (!isPlainValue(expected))
        return QStringLiteral("argument type %1 is not accepted")
            .arg(QLatin1String(expected.name()));
    QVariant value(expected);
    if (!expected.load(in, value.data()) || in.status() != QDataStream::Ok)
        return QStringLiteral("a %1 argument is cut short").arg(QLatin1String(expected.name()));
    return {};
}

QString checkVariant(QDataStream& in, QMetaType expected, int depth)
{
    quint32 typeId = 0;
    qint8 isNull = 0;
    in >> typeId >> isNull;
    if (in.status() != QDataStream::Ok)
        return QStringLiteral("an argument is cut short");
    if (isNull != 0 && isNull != 1)
        return QStringLiteral("an argument has a malformed header");
    if (expected.id() >= QMetaType::User) {
        if (typeId != QMetaType::User)
            return QStringLiteral("argument of type id %1 where %2 is expected")
                .arg(typeId)
                .arg(QLatin1String(expected.name()));
        quint32 length = 0;
        in >> length;
        const QByteArray want(expected.name());
        if (in.status() != QDataStream::Ok || length > kMaxTypeName ||
            length != quint32(want.size() + 1))
            return QStringLiteral("argument of another type where %1 is expected")
                .arg(QLatin1String(want));
        QByteArray name(qsizetype(length), Qt::Uninitialized);
        if (in.readRawData(name.data(), int(length)) != int(length) || name.chopped(1) != want ||
            name.back() != '\0')
            return QStringLiteral("argument of another type where %1 is expected")
                .arg(QLatin1String(want));
    } else if (typeId != quint32(expected.id())) {
        return QStringLiteral("argument of type id %1 where %2 is expected")
            .arg(typeId)
            .arg(QLatin1String(expected.name()));
    }
    return checkValue(in, expected, depth);
}

} // namespace

PacketRules::PacketRules(const RemoteContract& contract, QString sessionName)
    : m_contract(contract), m_prefix(std::move(sessionName) + QLatin1Char('/'))
{
}

QString PacketRules::classOf(const QString& name) const
{
    if (!name.startsWith(m_prefix))
        return {};
    const QString className = name.mid(m_prefix.size());
    return m_contract.find(className) ? className : QString();
}

QString PacketRules::checkIncoming(const QByteArray& packet)
{
    QDataStream in(packet);
    packet::prepare(in);
    quint16 type = 0;
    QString name;
    in >> type;
    if (type != packet::AddObject && type != packet::RemoveObject && type != packet::Invoke &&
        type != packet::Ping)
        return QStringLiteral("packet type %1 is not accepted from a client").arg(type);
    in >> name;
    if (in.status() != QDataStream::Ok)
        return QStringLiteral("packet cut short");
    if (classOf(name).isEmpty())
        return QStringLiteral("object '%1' is not one of this session's").arg(shown(name));

    QString error;
    switch (type) {
    case packet::AddObject: {
        bool dynamic = false;
        in >> dynamic;
        if (in.status() == QDataStream::Ok && in.atEnd())
            m_acquired.insert(name);
        break;
    }
    case packet::RemoveObject:
        m_acquired.remove(name);
        break;
    case packet::Invoke:
        if (!m_acquired.contains(name))
            return QStringLiteral("call of '%1', which this connection has not acquired").arg(name);
        error = checkInvoke(in, name);
        break;
    default:
        break;
    }
    if (!error.isEmpty())
        return error;
    if (in.status() != QDataStream::Ok)
        return QStringLiteral("packet cut short");
    if (!in.atEnd())
        return QStringLiteral("packet longer than its contents");
    return {};
}

QString PacketRules::checkInvoke(QDataStream& in, const QString& name)
{
    const RemoteContract::Class* c = m_contract.find(classOf(name));
    qint32 call = -1;
    qint32 index = -1;
    quint32 count = 0;
    in >> call >> index >> count;
    if (in.status() != QDataStream::Ok)
        return QStringLiteral("packet cut short");
    // QMetaObject::InvokeMetaMethod; the contract has no properties to write.
    if (call != 0)
        return QStringLiteral("call kind %1 is not accepted").arg(call);
    if (index < 0 || index >= qint32(c->methods.size()))
        return QStringLiteral("method %1 of %2 does not exist").arg(index).arg(name);
    const std::vector<QMetaType>& parameters = c->methods[size_t(index)];
    if (count != parameters.size())
        return QStringLiteral("method %1 of %2 takes %3 arguments, not %4")
            .arg(index)
            .arg(name)
            .arg(parameters.size())
            .arg(count);
    for (const QMetaType& parameter : parameters) {
        const QString error = checkVariant(in, parameter, 0);
        if (!error.isEmpty())
            return QStringLiteral("method %1 of %2: %3").arg(index).arg(name, error);
    }
    qint32 serial = 0;
    qint32 property = 0;
    in >> serial >> property;
    return {};
}

QByteArray PacketRules::filterOutgoing(const QByteArray& packet)
{
    if (packet.size() < packet::kHeaderSize + 2)
        return packet;
    QDataStream in(packet);
    packet::prepare(in);
    quint32 size = 0;
    quint16 type = 0;
    in >> size >> type;
    if (type != packet::ObjectList)
        return packet;

    quint32 count = 0;
    in >> count;
    QByteArray kept;
    QDataStream keptOut(&kept, QIODevice::WriteOnly);
    packet::prepare(keptOut);
    quint32 keptCount = 0;
    for (quint32 i = 0; i < count && in.status() == QDataStream::Ok; ++i) {
        QString name;
        QString typeName;
        QByteArray signature;
        in >> name >> typeName >> signature;
        if (in.status() == QDataStream::Ok && name.startsWith(m_prefix)) {
            keptOut << name << typeName << signature;
            ++keptCount;
        }
    }
    // Our own node wrote it; should it ever not parse, nothing of it is shown.
    if (in.status() != QDataStream::Ok)
        return {};
    if (keptCount == 0 && m_firstListSent)
        return {};
    m_firstListSent = true;
    QByteArray out;
    QDataStream o(&out, QIODevice::WriteOnly);
    packet::prepare(o);
    o << quint32(0) << quint16(packet::ObjectList) << keptCount;
    out.append(kept);
    const quint32 body = quint32(out.size() - packet::kHeaderSize);
    QDataStream patch(&out, QIODevice::ReadWrite);
    packet::prepare(patch);
    patch << body;
    return out;
}

} // namespace qorcalib
