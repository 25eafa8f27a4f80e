#include "remotecontract.h"

#include "rep_qorcalib_source.h"

#include <QStringList>

namespace qorcalib {

namespace {

template <template <class> class Api, class Source> void addClass(RemoteContract& contract)
{
    const Api<Source> api(nullptr);
    RemoteContract::Class c;
    for (int m = 0; m < api.methodCount(); ++m) {
        std::vector<QMetaType> types;
        for (int p = 0; p < api.methodParameterCount(m); ++p)
            types.push_back(QMetaType(api.methodParameterType(m, p)));
        c.methods.push_back(std::move(types));
    }
    contract.add(api.typeName(), std::move(c));
}

RemoteContract makeServerContract()
{
    RemoteContract contract;
    addClass<QCSCanConnectorSourceAPI, QCSCanConnectorSource>(contract);
    addClass<QCSBusSourceAPI, QCSBusSource>(contract);
    addClass<QCSNotifySourceAPI, QCSNotifySource>(contract);
    addClass<QCSServiceSourceAPI, QCSServiceSource>(contract);
    addClass<QCSTestConnectorSourceAPI, QCSTestConnectorSource>(contract);
    addClass<QCSBenchBoardSourceAPI, QCSBenchBoardSource>(contract);
    addClass<QCSBenchIoSourceAPI, QCSBenchIoSource>(contract);
    addClass<QCSServerWindowSourceAPI, QCSServerWindowSource>(contract);
    return contract;
}

} // namespace

const RemoteContract& RemoteContract::server()
{
    static const RemoteContract contract = makeServerContract();
    return contract;
}

const RemoteContract::Class* RemoteContract::find(const QString& className) const
{
    const auto it = m_classes.find(className);
    return it == m_classes.end() ? nullptr : &it->second;
}

QStringList RemoteContract::classNames() const
{
    QStringList names;
    for (const auto& [name, c] : m_classes)
        names << name;
    return names;
}

} // namespace qorcalib
