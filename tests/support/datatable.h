#pragma once

// A data-driven test's table written one row to a line: columns<int, QString>({"node", "text"})
// declares the columns in order, row("name", 5, "five") adds a row with a value per column, and
// fetch<int, QString>("node", "text") takes a row's values in the test.
#include <QTest>

#include <initializer_list>
#include <tuple>

namespace tessel::test {

template <typename... T>
void columns(std::initializer_list<const char*> names)
{
    Q_ASSERT(names.size() == sizeof...(T));
    auto name = names.begin();
    (QTest::addColumn<T>(*name++), ...);
}

// The values are taken as they are given, so a string literal fills a QString column, as with
// QTest::newRow() << "text".
template <typename... T>
void row(const char* name, T... values)
{
    (QTest::newRow(name) << ... << values);
}

// A row's values in one line, in the order the names are given:
// auto [node, text] = fetch<int, QString>("node", "text"), as QFETCH(int, node) and so on.
template <typename... T, typename... Name> std::tuple<T...> fetch(Name... names)
{
    static_assert(sizeof...(T) == sizeof...(Name));
    return {*static_cast<T*>(QTest::qData(names, QMetaType::fromType<T>().id()))...};
}

} // namespace tessel::test
