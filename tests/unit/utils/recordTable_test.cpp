#include "utils/recordTable.hpp"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>

#include "fixtures.hpp"

namespace {

using namespace oxpliv;
using oxtest::Call;
using oxtest::Faults;

class RecordTableTest : public oxtest::FaultTest {};

TEST_F(RecordTableTest, MapRecordTable_AnySize_IsRoundedUpToNativePagesAndZeroFilled) {
  const struct {
    unsigned long bytes;
    unsigned long native;
    unsigned long mapping;
  } cases[] = {{1, 4096, 4096},       {32, 4096, 4096},         {4095, 4096, 4096},
               {4096, 4096, 4096},    {4097, 4096, 8192},       {96, 16384, 16384},
               {16385, 16384, 32768}, {1000000, 4096, 1003520}, {65537, 65536, 131072}};
  for (const auto& one : cases) {
    SCOPED_TRACE(testing::Message() << one.bytes << " bytes in pages of " << one.native);
    RecordTable table;
    ASSERT_EQ(map_record_table(one.bytes, one.native, 0, table), 0);
    EXPECT_EQ(table.top, table.base + one.bytes);
    EXPECT_EQ(table.end, table.base + one.mapping);
    EXPECT_TRUE(std::all_of(table.base, table.end, [](char byte) { return byte == 0; }));
    std::fill(table.base, table.end, 'w');  // writable to its end
    EXPECT_EQ(table.end[-1], 'w');
  }
  EXPECT_EQ(Faults::count(Call::munmap), 0);
}

TEST_F(RecordTableTest, MapRecordTable_ExtraFlags_AreAddedToAPrivateAnonymousMapping) {
  for (const int extra : {0, MAP_NORESERVE}) {
    SCOPED_TRACE(extra);
    struct {
      void* address;
      size_t length;
      int protection;
      int flags;
      int fd;
      off64_t offset;
    } asked{};
    Faults::on_mmap64 = [&](void* address, size_t length, int protection, int flags, int fd, off64_t offset) {
      asked = {address, length, protection, flags, fd, offset};
      return oxtest::real::mmap64(address, length, protection, flags, fd, offset);
    };
    RecordTable table;
    ASSERT_EQ(map_record_table(100, 4096, extra, table), 0);
    Faults::on_mmap64 = nullptr;
    EXPECT_EQ(asked.address, nullptr);
    EXPECT_EQ(asked.length, 4096U);
    EXPECT_EQ(asked.protection, PROT_READ | PROT_WRITE);
    EXPECT_EQ(asked.flags, MAP_PRIVATE | MAP_ANONYMOUS | extra);
    EXPECT_EQ(asked.fd, -1);
    EXPECT_EQ(asked.offset, 0);
  }
}

TEST_F(RecordTableTest, MapRecordTable_MappingFails_LeavesTheTableAndPassesErrnoOn) {
  char memory[3];
  for (const int error : {ENOMEM, EAGAIN, EINVAL}) {
    SCOPED_TRACE(error);
    RecordTable table{&memory[0], &memory[1], &memory[2]};
    Faults::fail(Call::mmap64, error);
    EXPECT_EQ(map_record_table(100, 4096, 0, table), -1);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(table.base, &memory[0]);
    EXPECT_EQ(table.top, &memory[1]);
    EXPECT_EQ(table.end, &memory[2]);
  }
}

TEST_F(RecordTableTest, MapRecordTable_NoBytes_IsRefusedByTheSystem) {
  RecordTable table;
  EXPECT_EQ(map_record_table(0, 4096, 0, table), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(table.base, nullptr);
}

}  // namespace
