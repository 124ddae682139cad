#include "util/StoredForm.h"

#include <gtest/gtest.h>

#include <random>

#include "util/Hash.h"

namespace tarnwell {
namespace {

struct Item {
    SharedString Name;
    SharedString Owner;
    std::int32_t Tick = 0;
    std::optional<std::int64_t> Size;
    std::optional<std::int32_t> Mode;
    Date When{};
    std::optional<Date> Seen;
    bool Flag = false;
    std::optional<bool> Keep;
    SharedString Path;
    static constexpr StoredKey storedKeys[] = {
        {"Owner", Stored::kWhenPresent}, {"Name", Stored::kAlways},      {"Tick", Stored::kAlways},
        {"Size", Stored::kAlways},       {"When", Stored::kAlways},      {"Mode", Stored::kWhenPresent},
        {"Flag", Stored::kAlways},       {"Keep", Stored::kWhenPresent}, {"Seen", Stored::kWhenPresent},
    };
    static constexpr std::string_view notStored[] = {"Path"};
};
BOOST_DESCRIBE_STRUCT(Item, (), (Name, Owner, Tick, Size, Mode, When, Seen, Flag, Keep, Path))

Item fullItem() {
    Item item;
    item.Name = "n\u00e9";
    item.Owner = "o";
    item.Tick = INT32_MIN;
    item.Size = INT64_MAX;
    item.Mode = 0600;
    item.When = NSDateFromNSString("2026-11-15T15:40:41.123Z");
    item.Seen = Date{};
    item.Flag = true;
    item.Keep = false;
    return item;
}

std::string written(const std::vector<Item>& items) {
    std::string bytes;
    StoredRecordWriter<Item> writer(stringSink(bytes), "files", items.size());
    for (const Item& item : items)
        writer.add(item);
    EXPECT_EQ(writer.finish(), 0);
    return bytes;
}

std::vector<std::shared_ptr<Item>> read(std::string_view bytes, StoredRecordCount& count) {
    std::vector<std::shared_ptr<Item>> items;
    const auto keep = [&](std::shared_ptr<Item> item, const auto&) { items.push_back(std::move(item)); };
    EXPECT_TRUE(readStoredRecords<Item>(bytes, "files", keep, count)) << count.error;
    return items;
}

TEST(StoredFormTest, keysStandInTheTablesOrderAndAbsentOnesAreLeftOut) {
    const auto keys = [](const Item& item) {
        std::string text;
        const auto dictionary = saveToDictionary(item);
        for (const auto& [key, value] : dictionary.entries())
            text += key + " ";
        return text;
    };
    Item item = fullItem();
    item.Path = "/never/saved";
    EXPECT_EQ(keys(item), "Owner Name Tick Size When Mode Flag Keep Seen ");
    EXPECT_EQ(keys(Item{}), "Tick Size When Flag ") << "a due number is never absent";
}

TEST(StoredFormTest, treeAndStreamReadEachOther) {
    std::vector<Item> items(3, fullItem());
    items[1] = Item{};
    items[1].Name = "";
    items[1].Size = 0;
    items[2].Keep = true;
    PropertyList::Array array{PropertyList("no record")};
    for (const Item& item : items)
        array.emplace_back(saveToDictionary(item));
    PropertyList::Dictionary top;
    top.set("files", array);
    std::string error;
    const auto tree = serializePropertyList(top, PropertyListForm::kBinary, error);
    for (const std::string& bytes : {*tree, written(items)}) {
        StoredRecordCount count;
        const auto back = read(bytes, count);
        ASSERT_EQ(back.size(), items.size());
        EXPECT_EQ(count.records, 3U);
        for (std::size_t i = 0; i < items.size(); ++i)
            EXPECT_TRUE(recordsEqual(*back[i], items[i])) << i;
    }
}

TEST(StoredFormTest, damageCostsRecordsNeverTheProcess) {
    std::vector<Item> items;
    for (int i = 0; i < 50; ++i) {
        items.push_back(fullItem());
        items.back().Name = SharedString("item " + std::to_string(i));
    }
    const std::string good = written(items);
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int i = 0; i < 5000; ++i) {
        std::string bad = good;
        for (unsigned k = 1 + random() % 3; k > 0; --k)
            bad[random() % bad.size()] = static_cast<char>(random());
        if (random() % 8 == 0) bad.resize(random() % bad.size());
        StoredRecordCount count;
        std::uint64_t seen = 0;
        readStoredRecords<Item>(
            bad, "files", [&](const auto&, const auto&) { ++seen; }, count);
        ASSERT_EQ(seen, count.records);
        ASSERT_LE(seen + count.damaged, 50U + 255U);
    }
    // An object that lies nowhere costs the one record that it is.
    std::string bad = good;
    const BinaryPropertyListReader reader(good);
    const auto record = reader.top().find("files")->element(7);
    const auto* trailer = reinterpret_cast<const unsigned char*>(good.data() + good.size() - 32);
    const std::size_t offsetSize = trailer[6];
    const std::size_t table = static_cast<std::size_t>(trailer[30]) << 8 | trailer[31];
    bad.replace(table + record * offsetSize, offsetSize, offsetSize, '\xFF');
    StoredRecordCount count;
    EXPECT_EQ(read(bad, count).size(), 49U);
    EXPECT_EQ(count.damaged, 1U);
}

TEST(HashTest, isTheHashTextOfTheWire) {
    Md5 hash;
    for (const char* part : {"a", "", "bc"})
        hash.update(part);
    EXPECT_EQ(hash.hashText(), "90-01-50-98-3C-D2-4F-B0-D6-96-3F-7D-28-E1-7F-72");
}

}  // namespace
}  // namespace tarnwell
