#pragma once

// A data-driven test's table written one row to a line: columns<int, QString>({"node", "text"})
// declares the columns in order, row("name", 5, "five") adds a row with a value per column.
#include <QTest>

#include <initializer_list>

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

} // namespace tessel::test
