// The hash of a saved file, read piece by piece, against CreateHash of its content.

#include <LuaKnxDownloadHandler/FileHash.h>
#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <Helper/File.h>

#include <TempDir.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using Helper::File::FileError;
using Helper::File::FileReader;
using Helper::File::detail::DefaultFileSystemOps;
using Helper::File::detail::FileSystemOps;
using Helper::File::detail::SetFileSystemOps;
using Korvex::detail::CreateFileHash;
using Korvex::detail::kFileHashChunk;
using Korvex::detail::SameContent;
using lkdh::test::TempDir;

std::size_t g_largestRead = 0;
int g_reads = 0;
bool g_failRead = false;
int g_failFromRead = 0;  // the first read that fails, counting from 1; 0 for none

ssize_t CountingRead(int fd, void* data, std::size_t size) {
  ++g_reads;
  g_largestRead = std::max(g_largestRead, size);
  if (g_failRead || (g_failFromRead != 0 && g_reads >= g_failFromRead)) {
    errno = EIO;
    return -1;
  }
  return DefaultFileSystemOps().read(fd, data, size);
}

class FileHashTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_largestRead = 0;
    g_reads = 0;
    g_failRead = false;
    g_failFromRead = 0;
    FileSystemOps ops{};
    ops.read = CountingRead;
    m_previous = SetFileSystemOps(ops);
  }
  void TearDown() override { SetFileSystemOps(m_previous); }

  std::vector<std::uint32_t> HashOfFile(const std::string& content) {
    const fs::path path = m_dir.WriteFile("saved.xml", content);
    FileReader reader;
    FileError error;
    EXPECT_TRUE(reader.Open(path, error)) << error;
    std::vector<std::uint32_t> hash;
    EXPECT_TRUE(CreateFileHash(reader, hash, error)) << error;
    return hash;
  }

  TempDir m_dir;
  FileSystemOps m_previous{};
};

std::string Pattern(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i * 131 + i / 7) % 256);
  return text;
}

TEST_F(FileHashTest, EmptyFileHashesLikeTheEmptyText) {
  EXPECT_EQ(HashOfFile(""), Korvex::CreateHash(""));
}

TEST_F(FileHashTest, FileOfSeveralPiecesHashesLikeItsWholeContent) {
  for (const std::size_t size :
       {std::size_t{1}, std::size_t{63}, std::size_t{64}, kFileHashChunk - 1, kFileHashChunk,
        kFileHashChunk + 1, 3 * kFileHashChunk + 17}) {
    const std::string content = Pattern(size);
    EXPECT_EQ(HashOfFile(content), Korvex::CreateHash(content)) << size << " bytes";
  }
}

TEST_F(FileHashTest, ZeroBytesInTheFileAreHashed) {
  const std::string content("<a>\0\0</a>", 9);
  EXPECT_EQ(HashOfFile(content), Korvex::CreateHash(content));
  EXPECT_NE(HashOfFile(content), Korvex::CreateHash("<a></a>"));
}

TEST_F(FileHashTest, NoReadAsksForMoreThanOnePiece) {
  HashOfFile(Pattern(5 * kFileHashChunk + 5));
  EXPECT_EQ(g_largestRead, kFileHashChunk);
  EXPECT_GE(g_reads, 6);
}

TEST_F(FileHashTest, AFailedReadIsReportedWithItsReason) {
  const fs::path path = m_dir.WriteFile("saved.xml", "content");
  FileReader reader;
  FileError error;
  ASSERT_TRUE(reader.Open(path, error));
  g_failRead = true;
  std::vector<std::uint32_t> hash;
  EXPECT_FALSE(CreateFileHash(reader, hash, error));
  EXPECT_EQ(error.Describe(), "read: Input/output error");
}

TEST_F(FileHashTest, SameContentComparesAFileOfTheTextsSizeByItsHash) {
  const std::string text = "<etsproject/>\n";
  for (const auto& [content, expected] :
       std::vector<std::pair<std::string, bool>>{{text, true}, {"<etsproject/>\r", false}}) {
    const fs::path path = m_dir.WriteFile("saved.xml", content);
    FileReader reader;
    FileError error;
    ASSERT_TRUE(reader.Open(path, error));
    bool same = !expected;
    ASSERT_TRUE(SameContent(reader, text, same, error));
    EXPECT_EQ(same, expected) << content;
  }
}

TEST_F(FileHashTest, SameContentFindsAFileOfSeveralPiecesEqualToTheText) {
  const std::string text = Pattern(3 * kFileHashChunk + 17);
  const fs::path path = m_dir.WriteFile("saved.xml", text);
  FileReader reader;
  FileError error;
  ASSERT_TRUE(reader.Open(path, error));
  bool same = false;
  ASSERT_TRUE(SameContent(reader, text, same, error));
  EXPECT_TRUE(same);
  EXPECT_EQ(g_reads, 5);  // four pieces and the end
}

TEST_F(FileHashTest, SameContentFindsAFileOfTheTextsSizeDifferingInAnyPiece) {
  const std::string text = Pattern(3 * kFileHashChunk + 17);
  for (const std::size_t at : {std::size_t{0}, kFileHashChunk - 1, kFileHashChunk,
                               2 * kFileHashChunk + 5, text.size() - 1}) {
    std::string content = text;
    content[at] = static_cast<char>(content[at] ^ 1);
    const fs::path path = m_dir.WriteFile("saved.xml", content);
    FileReader reader;
    FileError error;
    ASSERT_TRUE(reader.Open(path, error));
    bool same = true;
    ASSERT_TRUE(SameContent(reader, text, same, error));
    EXPECT_FALSE(same) << "byte " << at;
  }
}

TEST_F(FileHashTest, SameContentReportsAFileOfTheTextsSizeThatFailsPartWay) {
  const std::string text = Pattern(3 * kFileHashChunk);
  const fs::path path = m_dir.WriteFile("saved.xml", text);
  FileReader reader;
  FileError error;
  ASSERT_TRUE(reader.Open(path, error));
  g_failFromRead = 3;
  bool same = true;
  EXPECT_FALSE(SameContent(reader, text, same, error));
  EXPECT_EQ(error.Describe(), "read: Input/output error");
}

TEST_F(FileHashTest, SameContentReadsAFileOfAnotherSizeToItsEnd) {
  const std::string text = "<etsproject/>\n";
  const fs::path path = m_dir.WriteFile("saved.xml", Pattern(3 * kFileHashChunk));
  FileReader reader;
  FileError error;
  ASSERT_TRUE(reader.Open(path, error));
  bool same = true;
  ASSERT_TRUE(SameContent(reader, text, same, error));
  EXPECT_FALSE(same);
  EXPECT_EQ(g_reads, 4);  // three pieces and the end
  EXPECT_EQ(g_largestRead, kFileHashChunk);
}

TEST_F(FileHashTest, SameContentReportsAFileOfAnotherSizeThatFailsPartWay) {
  const std::string text = "<etsproject/>\n";
  const fs::path path = m_dir.WriteFile("saved.xml", Pattern(3 * kFileHashChunk));
  FileReader reader;
  FileError error;
  ASSERT_TRUE(reader.Open(path, error));
  g_failFromRead = 3;
  bool same = true;
  EXPECT_FALSE(SameContent(reader, text, same, error));
  EXPECT_EQ(error.Describe(), "read: Input/output error");
}

TEST_F(FileHashTest, SameContentReportsAFileOfAnotherSizeThatCannotBeRead) {
  const std::string text = "<etsproject/>\n";
  const fs::path path = m_dir.WriteFile("saved.xml", text + "more");
  FileReader reader;
  FileError error;
  ASSERT_TRUE(reader.Open(path, error));
  g_failRead = true;
  bool same = true;
  EXPECT_FALSE(SameContent(reader, text, same, error));
  EXPECT_EQ(error.Describe(), "read: Input/output error");
}

}  // namespace
