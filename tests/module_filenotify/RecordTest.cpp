#include <gtest/gtest.h>
#include <kernel/InotifyDescriptor.h>
#include <kernel/InotifyReader.h>
#include <kernel/InotifyRecord.h>
#include <sys/inotify.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <string>

namespace test {

using Engine::FileNotify::InotifyReader;
using Engine::FileNotify::InotifyRecord;
using Engine::FileNotify::ParseRecords;

std::string Record(int wd, std::uint32_t mask, std::uint32_t cookie, const std::string& name) {
    inotify_event head{};
    head.wd = wd;
    head.mask = mask;
    head.cookie = cookie;
    head.len = name.empty() ? 0 : static_cast<std::uint32_t>((name.size() + 16) / 16 * 16);
    std::string bytes(sizeof head + head.len, '\0');
    std::memcpy(bytes.data(), &head, sizeof head);
    std::memcpy(bytes.data() + sizeof head, name.data(), name.size());
    return bytes;
}

TEST(ParseRecords, SeveralRecords_NamesLoseTheirPadding) {
    const std::string bytes = Record(3, IN_CREATE | IN_ISDIR, 0, "a\n\xff") +
                              Record(4, IN_DELETE_SELF, 0, "") + Record(-1, IN_Q_OVERFLOW, 0, "") +
                              Record(5, IN_MOVED_TO, 77, std::string(255, 'x'));
    std::vector<InotifyRecord> records;
    ASSERT_TRUE(ParseRecords(bytes, records));
    ASSERT_EQ(records.size(), 4U);
    EXPECT_EQ(records[0].name, "a\n\xff");
    EXPECT_EQ(records[0].mask, static_cast<std::uint32_t>(IN_CREATE | IN_ISDIR));
    EXPECT_TRUE(records[1].name.empty());
    EXPECT_EQ(records[2].wd, -1);
    EXPECT_EQ(records[3].cookie, 77U);
    EXPECT_EQ(records[3].name.size(), 255U);
}

TEST(ParseRecords, CutShortAnywhere_KeepsTheWholeOnesAndSaysSo) {
    const std::string whole = Record(1, IN_MODIFY, 0, "first");
    const std::string bytes = whole + Record(2, IN_MODIFY, 0, "second");
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        std::vector<InotifyRecord> records;
        const bool complete = ParseRecords(bytes.substr(0, size), records);
        EXPECT_EQ(complete, size == 0 || size == whole.size()) << size;
        EXPECT_EQ(records.size(), size >= whole.size() ? 1U : 0U) << size;
    }
}

class ScriptedDescriptor : public Engine::FileNotify::InotifyDescriptor {
  public:
    ssize_t Read(char* buffer, std::size_t) override {
        if (reads.empty()) {
            errno = EAGAIN;
            return -1;
        }
        const std::string bytes = reads.front();
        reads.pop_front();
        std::memcpy(buffer, bytes.data(), bytes.size());
        return static_cast<ssize_t>(bytes.size());
    }
    std::deque<std::string> reads;
};

TEST(InotifyReader, HalvesOfAMoveInTwoReads_ArePairedByCookie) {
    ScriptedDescriptor descriptor;
    InotifyReader reader(descriptor);
    descriptor.reads = {Record(1, IN_MOVED_FROM, 9, "a")};
    EXPECT_EQ(reader.Fill(), 1U);
    EXPECT_EQ(reader.FindAhead(9, IN_MOVED_TO), nullptr);
    descriptor.reads = {Record(2, IN_MODIFY, 0, "m") + Record(2, IN_MOVED_TO, 9, "b")};
    EXPECT_EQ(reader.Fill(), 2U);
    ASSERT_NE(reader.FindAhead(9, IN_MOVED_TO), nullptr);
    EXPECT_EQ(reader.FindAhead(9, IN_MOVED_TO)->name, "b");
    EXPECT_EQ(reader.Front()->name, "a");
    reader.Pop();
    reader.Pop();
    EXPECT_EQ(reader.Front()->name, "b");
    reader.Pop();
    EXPECT_EQ(reader.Front(), nullptr);
    EXPECT_EQ(reader.Fill(), 0U);
}

TEST(InotifyReader, ReadsOfAllSizes_KeepTheirRecordsAndTellWhetherMoreMayBeThere) {
    ScriptedDescriptor descriptor;
    InotifyReader reader(descriptor);
    const std::string one = Record(1, IN_MODIFY, 0, "name");
    std::string many;
    while (many.size() + one.size() < InotifyReader::kReadBytes) many += one;
    for (int round = 0; round < 3; ++round) {
        descriptor.reads = {many, Record(2, IN_MODIFY, 0, "last")};
        reader.Fill();
        EXPECT_TRUE(reader.HasEmptied());
        for (; reader.Size() > 1; reader.Pop()) ASSERT_EQ(reader.Front()->name, "name");
        EXPECT_EQ(reader.Front()->name, "last");
        reader.Pop();
        EXPECT_TRUE(reader.Empty());
    }
    for (std::size_t read = 0; read <= InotifyReader::kMaxBufferedBytes; read += many.size()) {
        descriptor.reads.push_back(many);
    }
    descriptor.reads.push_back(many);
    reader.Fill();
    EXPECT_FALSE(reader.HasEmptied());
}

}  // namespace test
