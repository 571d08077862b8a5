// Listings of real directories and of hooked ones.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Examples/MemoryFiles/MemoryFileSystem.h"
#include "Infra/Infra3/File.h"
#include "Infra/Infra3/FileFind.h"
#include "Support/ChildProcess.h"
#include "Support/LogCapture.h"
#include "Support/TemporaryFolder.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

using TestSupport::CLogCapture;
using TestSupport::CTemporaryFolder;
using TestSupport::setContent;
namespace fs = std::filesystem;

typedef std::set<std::string> Names;

template <typename Finder>
class FinderTest : public testing::Test
{
protected:
    CTemporaryFolder folder;
    Finder finder;

    /// Names or paths of a whole listing.
    Names listed(const std::string& pattern, bool withPath = false)
    {
        Names names;
        for (bool more = finder.findFile(pattern.c_str()); more; more = finder.findNextFile()) {
            names.insert(withPath ? finder.getFilePath().c_str() : finder.getFileName().c_str());
        }
        finder.close();
        return names;
    }
    /// Makes the entry of that name the current one.
    void goTo(const std::string& name)
    {
        bool more = finder.findFile((folder.path() + "/").c_str());
        while (more && finder.getFileName() != name.c_str()) {
            more = finder.findNextFile();
        }
        ASSERT_TRUE(more) << name;
    }
    /// Letters for what the current entry is.
    std::string kind()
    {
        return std::string(finder.isDirectory() ? "d" : "") + (finder.isReadOnly() ? "r" : "") +
               (finder.isHidden() ? "h" : "") + (finder.isNormal() ? "n" : "");
    }
};

typedef testing::Types<CFileFind, CFileFindEx> Finders;
TYPED_TEST_SUITE(FinderTest, Finders);

TYPED_TEST(FinderTest, EveryEntryIsListedWithWhatItIs)
{
    setContent(this->folder.path("file"), "12345");
    setContent(this->folder.path(".readonly"), "");
    chmod(this->folder.path(".readonly").c_str(), 0444);
    fs::create_directory(this->folder.path("directory"));
    fs::create_symlink("directory", this->folder.path("link"));
    const Names all = {".", "..", ".readonly", "directory", "file", "link"};
    EXPECT_EQ(this->kind(), "n"); // nothing yet
    EXPECT_EQ(this->listed(this->folder.path() + "/*"), all);
    EXPECT_EQ(this->listed(this->folder.path() + "/"), all);
    EXPECT_EQ(this->listed(this->folder.path()), all);
    EXPECT_EQ(this->listed(this->folder.path() + "/*", true).count(this->folder.path("file")), 1U);

    const struct
    {
        const char* name;
        const char* kind;
    } kinds[] = {{"file", "n"}, {".readonly", "r"}, {"directory", "d"}, {"link", "d"}, {".", "d"}};
    for (const auto& one : kinds) {
        this->goTo(one.name);
        EXPECT_EQ(this->kind(), one.kind) << one.name;
    }
    this->goTo("file");
    this->finder.close();
    EXPECT_EQ(this->finder.getLength(), 5U); // it stays
    EXPECT_EQ(this->finder.getFileName(), "file");
    ASSERT_TRUE(this->finder.findFile((this->folder.path() + "/*").c_str()));
    while (this->finder.findNextFile()) {
    }
    EXPECT_EQ(this->finder.getFileName(), (this->folder.path() + "/").c_str()); // not at the end
}

TYPED_TEST(FinderTest, WithoutAListingThereIsNothing)
{
    EXPECT_FALSE(this->finder.findNextFile());
    EXPECT_FALSE(this->finder.findFile(nullptr));
    for (const std::string& pattern :
         {this->folder.path("missing/*"), std::string("/dev/null"),
          this->folder.path() + std::string(1024, '/')}) { // cut, it would be the folder
        EXPECT_TRUE(this->finder.findFile((this->folder.path() + "/*").c_str()));
        EXPECT_FALSE(this->finder.findFile(pattern.c_str()));
        EXPECT_FALSE(this->finder.findNextFile()); // the one before has ended
        this->finder.close();
    }
}

TYPED_TEST(FinderTest, APatternWithoutASlashIsADirectoryHere)
{
    fs::create_directory(this->folder.path("logs"));
    setContent(this->folder.path("logs/a"), "");
    TestSupport::inChild([this] {
        ASSERT_EQ(chdir(this->folder.path().c_str()), 0);
        EXPECT_EQ(this->listed("", true), (Names{"./.", "./..", "./logs"}));
        EXPECT_EQ(this->listed("*", true), (Names{"./.", "./..", "./logs"}));
        EXPECT_EQ(this->listed("logs", true), (Names{"logs/.", "logs/..", "logs/a"}));
        EXPECT_EQ(this->listed("logs*", true), (Names{"logs/.", "logs/..", "logs/a"}));
    });
}

TYPED_TEST(FinderTest, AnyNameOfUpTo236BytesIsListed)
{
    const std::string longest(236, 'n');
    const Names names = {"two words", "%s%n", "line\nend", "\xff\x01", longest};
    for (const std::string& name : names) {
        setContent(this->folder.path(name), "");
    }
    setContent(this->folder.path(longest + "x"), "");
    Names expected = names;
    expected.insert({".", ".."});
    EXPECT_EQ(this->listed(this->folder.path() + "/*"), expected);
}

TYPED_TEST(FinderTest, AnEntryWithoutAStatusEndsTheListingWithAMessage)
{
    CLogCapture log;
    fs::create_symlink("/no/such/file", this->folder.path("dangling"));
    EXPECT_EQ(this->listed(this->folder.path() + "/*").count("dangling"), 0U);
    const std::string text = log.takeLeveled();
    EXPECT_EQ(text.rfind("error|this:0x", 0), 0U) << text;
    EXPECT_NE(text.find(" FileDefaultOpt::findnext, stat failed ,err:No such file or directory\n"),
              std::string::npos)
        << text;
}

TYPED_TEST(FinderTest, EntriesMayVanishMeanwhile)
{
    CLogCapture log;
    for (int i = 0; i < 1000; ++i) {
        setContent(this->folder.path(std::string("entry") + std::to_string(i)), "");
    }
    ASSERT_TRUE(this->finder.findFile((this->folder.path() + "/*").c_str()));
    Names seen = {this->finder.getFileName().c_str()};
    for (int i = 0; i < 999; ++i) {
        fs::remove(this->folder.path(std::string("entry") + std::to_string(i)));
    }
    while (this->finder.findNextFile()) {
        seen.insert(this->finder.getFileName().c_str());
    }
    seen.insert({".", ".."}); // met or not, and one entry may have been the first
    EXPECT_EQ(seen.count("entry999"), 1U);
    EXPECT_LE(seen.size(), 4U);
    EXPECT_EQ(log.takeLeveled(), "");
}

TYPED_TEST(FinderTest, AHookedFileSystemIsListedAndToldTheDirectory)
{
    /// Notes what it finds in FileInfo::name.
    class CNoting : public CMemoryFileSystem
    {
    public:
        using CMemoryFileSystem::CMemoryFileSystem;
        long findfirst(const char* pattern, FileInfo& info) override
        {
            told += std::string(info.name) + " ";
            return CMemoryFileSystem::findfirst(pattern, info);
        }
        int findnext(long handle, FileInfo& info) override
        {
            told += std::string(info.name) + " ";
            return CMemoryFileSystem::findnext(handle, info);
        }
        std::string told;
    };
    CLogCapture log;
    CNoting memory("/memory", 1 << 20);
    hookFileSystem("/memory", &memory);
    memory.mkdir("/memory/a");
    memory.told.clear();
    EXPECT_EQ(this->listed("/memory/*", true), (Names{"/memory/.", "/memory/..", "/memory/a"}));
    EXPECT_EQ(memory.told.rfind("/memory/ /memory/ /memory/ ", 0), 0U) << memory.told;
    EXPECT_EQ(memory.openHandles(), 0);
    hookFileSystem("/memory", nullptr);
}

} // namespace
} // namespace Infra
} // namespace Tarsel
