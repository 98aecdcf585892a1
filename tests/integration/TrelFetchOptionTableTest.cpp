// trel-fetch's option table, compiled from the program's own source: the
// parser looks options up by enumerator, so each enumerator needs exactly one
// entry, and each name on the command line must lead to exactly one entry.

#include "OptionTable.h"

#include <gtest/gtest.h>

#include <QSet>

#include <vector>

namespace {

using trelfetch::Option;
using trelfetch::optionsNotListedOnce;
using trelfetch::OptionSpec;
using trelfetch::optionTable;

// Plain numbers, so that a failure prints which enumerators are wrong.
std::vector<int> numbers(const QList<Option>& options)
{
    std::vector<int> result;
    for (const Option option : options) {
        result.push_back(static_cast<int>(option));
    }
    return result;
}

std::vector<int> notListedOnce(const QList<OptionSpec>& table)
{
    return numbers(optionsNotListedOnce(table));
}

QList<OptionSpec> tableWithout(Option removed)
{
    QList<OptionSpec> table;
    for (const OptionSpec& entry : optionTable()) {
        if (entry.option != removed) {
            table.append(entry);
        }
    }
    return table;
}

QList<Option> everyOption()
{
    QList<Option> all;
    for (int index = 0; index < static_cast<int>(Option::Count); ++index) {
        all.append(static_cast<Option>(index));
    }
    return all;
}

TEST(TrelFetchOptionTable, ListsEveryOptionExactlyOnce)
{
    EXPECT_EQ(notListedOnce(optionTable()), std::vector<int> {});
    EXPECT_EQ(optionTable().size(), static_cast<int>(Option::Count));
}

TEST(TrelFetchOptionTable, TheCheckFindsAMissingOption)
{
    EXPECT_EQ(notListedOnce(tableWithout(Option::UploadFile)), numbers({ Option::UploadFile }));
    EXPECT_EQ(notListedOnce(tableWithout(Option::Output)), numbers({ Option::Output }));
    EXPECT_EQ(notListedOnce(tableWithout(Option::Man)), numbers({ Option::Man }));
    EXPECT_EQ(notListedOnce({}), numbers(everyOption()));
}

TEST(TrelFetchOptionTable, TheCheckFindsARepeatedOption)
{
    QList<OptionSpec> table = optionTable();
    OptionSpec alias = trelfetch::optionEntry(Option::Header);
    alias.longName = "headers";
    table.append(alias);
    EXPECT_EQ(notListedOnce(table), numbers({ Option::Header }));
}

TEST(TrelFetchOptionTable, TheCheckRejectsTheCountAsAnEntry)
{
    QList<OptionSpec> table = optionTable();
    table.append({ Option::Count, {}, "count", trelfetch::ValueKind::None, {}, "Not an option." });
    EXPECT_EQ(notListedOnce(table), numbers({ Option::Count }));
}

TEST(TrelFetchOptionTable, EachOptionLeadsToItsOwnEntry)
{
    for (const Option option : everyOption()) {
        EXPECT_EQ(static_cast<int>(trelfetch::optionEntry(option).option), static_cast<int>(option));
    }
}

// The parser takes the first entry with a name, so a second one could never be given.
TEST(TrelFetchOptionTable, LongAndShortNamesAreUnique)
{
    QSet<QString> longNames;
    QSet<QChar> shortNames;
    for (const OptionSpec& entry : optionTable()) {
        EXPECT_FALSE(entry.longName.isEmpty());
        EXPECT_FALSE(longNames.contains(entry.longName)) << entry.longName.toStdString();
        longNames.insert(entry.longName);
        if (!entry.shortName.isNull()) {
            EXPECT_FALSE(shortNames.contains(entry.shortName)) << QString(entry.shortName).toStdString();
            shortNames.insert(entry.shortName);
        }
    }
}

} // namespace
