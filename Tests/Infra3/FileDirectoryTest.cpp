// Whole paths of directories, made and removed.

#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "Examples/MemoryFiles/MemoryFileSystem.h"
#include "Infra/Infra3/File.h"
#include "Infra3/FileHelpers.h"
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
using TestSupport::contentOf;
using TestSupport::CTemporaryFolder;
using TestSupport::setContent;
namespace fs = std::filesystem;

TEST(DirectoryTest, WholePathsAreMadeAndRemoved)
{
    CLogCapture log;
    const CTemporaryFolder folder;
    CMemoryFileSystem memory("/memory", 1 << 20);
    const CHook hook("/memory", memory);
    log.clear();
    for (const std::string& root : {folder.path(), std::string("/memory")}) {
        SCOPED_TRACE(root);
        const std::string top = root + "/a";
        const std::string bottom = top + "/b/c";
        EXPECT_TRUE(CFile::makeDirectoryRecursively((bottom + "/").c_str()));
        EXPECT_FALSE(CFile::makeDirectoryRecursively(bottom.c_str()));
        for (const std::string& name : {top + "/one", bottom + "/two %d\n"}) {
            CFile file;
            EXPECT_TRUE(file.open(name.c_str(), CFile::modeWrite));
        }
        EXPECT_TRUE(CFile::removeDirectoryRecursively((top + "/*").c_str(), false));
        EXPECT_TRUE(CFile::access(top.c_str(), F_OK));
        EXPECT_FALSE(CFile::access((top + "/b").c_str(), F_OK));
        EXPECT_TRUE(CFile::makeDirectoryRecursively(bottom.c_str()));
        EXPECT_TRUE(CFile::removeDirectoryRecursively((top + "/").c_str(), true));
        EXPECT_FALSE(CFile::access(top.c_str(), F_OK));
        EXPECT_EQ(log.takeLeveled(), "");
        EXPECT_FALSE(CFile::removeDirectoryRecursively(top.c_str(), true));
        EXPECT_EQ(unended(log), "warn|the path does not exist");
    }
    EXPECT_FALSE(CFile::makeDirectoryRecursively("/"));
    EXPECT_FALSE(CFile::makeDirectoryRecursively(""));
    EXPECT_FALSE(CFile::removeDirectoryRecursively(nullptr, false));
    EXPECT_EQ(unended(log), "warn|the path is unvalidthe path is unvalid");
}

TEST(DirectoryTest, LinksAreRemovedAndNeverFollowed)
{
    CLogCapture log;
    const CTemporaryFolder folder;
    const std::string kept = folder.path("kept");
    const std::string tree = folder.path("tree");
    fs::create_directories(kept + "/inside");
    setContent(kept + "/file", "kept");
    fs::create_directories(tree + "/deeper/directory");
    fs::create_symlink(kept, tree + "/to-directory");
    fs::create_symlink(kept + "/file", tree + "/deeper/to-file");
    fs::create_symlink("/no/such/file", tree + "/dangling");
    fs::create_symlink("..", tree + "/deeper/loop");
    fs::create_symlink("itself", tree + "/itself");
    fs::create_symlink(tree, folder.path("link"));
    setContent(tree + "/" + std::string(255, 'n'), "a long name");

    for (const char* noDirectory : {"/tree/dangling", "/tree/deeper/to-file", "/tree/itself"}) {
        const std::string path = folder.path() + noDirectory;
        for (const bool andItself : {true, false}) {
            EXPECT_FALSE(CFile::removeDirectoryRecursively(path.c_str(), andItself)) << path;
            EXPECT_EQ(unended(log), "warn|the path does not exist");
        }
        EXPECT_TRUE(fs::is_symlink(path));
    }
    EXPECT_TRUE(CFile::removeDirectoryRecursively(folder.path("link").c_str(), true));
    EXPECT_FALSE(fs::exists(fs::symlink_status(folder.path("link"))));
    EXPECT_TRUE(fs::exists(tree + "/deeper"));
    EXPECT_TRUE(CFile::removeDirectoryRecursively(tree.c_str(), true));
    EXPECT_FALSE(fs::exists(tree));
    EXPECT_TRUE(fs::exists(kept + "/inside"));
    EXPECT_EQ(contentOf(kept + "/file"), "kept");

    // Where it leads is what is emptied, but for a link that is to be removed itself.
    fs::create_symlink(kept, folder.path("link"));
    for (const char* behind : {"", "/", "/*"}) {
        setContent(kept + "/file", "x");
        const std::string path = folder.path("link") + behind;
        EXPECT_TRUE(CFile::removeDirectoryRecursively(path.c_str(), false)) << path;
        EXPECT_TRUE(fs::is_empty(kept)) << path;
    }
}

TEST(DirectoryTest, AnEntryMayBeNamedAsterisk)
{
    CLogCapture log;
    const CTemporaryFolder folder;
    CMemoryFileSystem memory("/memory", 1 << 20);
    const std::string tree = folder.path("tree");
    const std::string other = folder.path("other");
    fs::create_directories(other + "/kept");
    fs::create_directories(tree);
    fs::create_symlink(other, tree + "/*");
    EXPECT_FALSE(CFile::removeDirectoryRecursively((tree + "/*/*").c_str(), true)); // a link
    EXPECT_TRUE(fs::is_empty(other));
    EXPECT_TRUE(CFile::removeDirectoryRecursively((tree + "/*").c_str(), true));
    EXPECT_FALSE(fs::exists(tree));

    fs::create_directories(tree + "/*/deeper");
    const CHook hook(tree + "/mounted", memory); // the way of paths
    EXPECT_TRUE(CFile::removeDirectoryRecursively(tree.c_str(), true));
    EXPECT_FALSE(fs::exists(tree));
    EXPECT_TRUE(fs::exists(other));
}

/// Without root's rights, for this thread and its life.
class CNobody
{
public:
    CNobody() { setfsuid(nobody); }
    ~CNobody()
    {
        setfsuid(geteuid());
        prctl(PR_SET_DUMPABLE, 1); // which checkers of memory need
    }
    bool isDone() const { return geteuid() != 0 || setfsuid(~uid_t{0}) == nobody; }

private:
    static constexpr uid_t nobody = 65534;
};

TEST(DirectoryTest, WhatMayNotBeListedOrRemovedStays)
{
    CLogCapture log;
    const CTemporaryFolder folder;
    const std::string tree = folder.path("tree");
    for (const char* name : {"/shut/sub", "/blind/sub", "/held/sub", "/unreadable"}) {
        fs::create_directories(tree + name);
        setContent(tree + name + "/file", "x");
    }
    if (geteuid() == 0) {
        for (const auto& entry : fs::recursive_directory_iterator(folder.path())) {
            ASSERT_EQ(chown(entry.path().c_str(), 65534, -1), 0);
        }
        ASSERT_EQ(chmod(folder.path().c_str(), 0777), 0);
    }
    chmod((tree + "/shut").c_str(), 0000);
    chmod((tree + "/blind").c_str(), 0444); // names without what they are
    chmod((tree + "/held").c_str(), 0555);  // its entries stay, theirs do not
    chmod((tree + "/unreadable/file").c_str(), 0000);
    {
        const CNobody nobody;
        if (!nobody.isDone()) {
            GTEST_SKIP() << "the rights of root cannot be laid down here";
        }
        EXPECT_FALSE(CFile::removeDirectoryRecursively(tree.c_str(), true));
        EXPECT_EQ(unended(log), "warn|the path does not existthe path does not exist");
        for (const char* name : {"/shut", "/blind"}) {
            EXPECT_FALSE(CFile::removeDirectoryRecursively((tree + name).c_str(), false));
            EXPECT_EQ(unended(log), "warn|the path does not exist") << name;
        }
    }
    chmod((tree + "/shut").c_str(), 0755);
    chmod((tree + "/blind").c_str(), 0755);
    EXPECT_TRUE(fs::exists(tree + "/shut/sub/file"));
    EXPECT_TRUE(fs::exists(tree + "/blind/sub/file"));
    EXPECT_TRUE(fs::is_empty(tree + "/held/sub"));
    EXPECT_FALSE(fs::exists(tree + "/unreadable"));
}

/// A hook below makes the paths of a tree be asked for one by one.
TEST(DirectoryTest, WhatIsHookedInTheMiddleOfATreeIsRemovedThroughTheHook)
{
    CLogCapture log;
    const CTemporaryFolder folder;
    const std::string mounted = folder.path("tree/mounted");
    const std::string kept = folder.path("kept");
    fs::create_directories(mounted + "/of-the-system");
    fs::create_directories(kept + "/inside");
    fs::create_symlink(kept, folder.path("tree/link"));
    CMemoryFileSystem memory(mounted, 1 << 20);
    const CHook hook(mounted + "/", memory);
    EXPECT_TRUE(CFile::makeDirectoryRecursively((mounted + "/in/memory").c_str()));

    EXPECT_FALSE(CFile::removeDirectoryRecursively(folder.path("tree").c_str(), true));
    FileInfo info = {};
    EXPECT_EQ(memory.stat((mounted + "/in").c_str(), info), -1);
    EXPECT_TRUE(fs::exists(mounted + "/of-the-system"));
    EXPECT_FALSE(fs::exists(fs::symlink_status(folder.path("tree/link"))));
    EXPECT_TRUE(fs::exists(kept + "/inside"));

    fs::create_symlink(folder.path("tree"), folder.path("link"));
    const CHook below(folder.path("link/mounted"), memory);
    EXPECT_TRUE(CFile::removeDirectoryRecursively(folder.path("link").c_str(), true));
    EXPECT_FALSE(fs::exists(fs::symlink_status(folder.path("link"))));
    EXPECT_TRUE(fs::exists(mounted + "/of-the-system"));
}

TEST(DirectoryTest, OnlyWhatIsBelowTheDirectoryIsRemovedWhateverAHookLists)
{
    /// Lists entries that lead out of a directory, or nowhere.
    class CStrange : public CMemoryFileSystem
    {
    public:
        using CMemoryFileSystem::CMemoryFileSystem;
        int findnext(long handle, FileInfo& info) override
        {
            static const char* const names[] = {"", "../other", "/memory/other"};
            if (m_next == 3) {
                return CMemoryFileSystem::findnext(handle, info);
            }
            info = FileInfo();
            info.attrib = CFile::directory;
            strcpy(info.name, names[m_next++]);
            return 0;
        }

    private:
        int m_next = 0;
    };
    CLogCapture log;
    CStrange memory("/memory", 1 << 20);
    const CHook hook("/memory", memory);
    EXPECT_TRUE(CFile::makeDirectoryRecursively("/memory/a/b"));
    EXPECT_TRUE(CFile::makeDirectory("/memory/other"));
    EXPECT_TRUE(CFile::removeDirectoryRecursively("/memory/a", true));
    EXPECT_TRUE(CFile::access("/memory/other", F_OK));
}

TEST(DirectoryTest, ATreeDeeperThanAnyPathIsRemoved)
{
    const CTemporaryFolder folder;
    const std::string name(200, 'd');
    TestSupport::inChild([&] { // it changes its directory
        ASSERT_EQ(chdir(folder.path().c_str()), 0);
        for (int depth = 0; depth < 2000; ++depth) {
            ASSERT_TRUE(mkdir(name.c_str(), 0777) == 0 && chdir(name.c_str()) == 0) << depth;
            setContent("file", "x");
        }
    });
    EXPECT_TRUE(CFile::removeDirectoryRecursively(folder.path(name).c_str(), true));
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST(DirectoryTest, APathThatWouldHaveToBeCutIsRefused)
{
    CLogCapture log;
    CMemoryFileSystem memory("/memory", 1 << 20);
    const CHook hook("/memory", memory);
    std::string fits = "/memory";
    for (const size_t step : {250, 250, 250, 260}) {
        fits += std::string("/") + std::string(step, 'x');
        memory.mkdir(fits.c_str());
    }
    ASSERT_EQ(fits.size(), 1021U); // "/" and "*" go behind it
    const std::string tooLong = fits + "y";
    memory.mkdir(tooLong.c_str());
    log.clear();
    EXPECT_FALSE(CFile::removeDirectoryRecursively(tooLong.c_str(), true));
    EXPECT_EQ(unended(log), "warn|the path does not exist");
    EXPECT_TRUE(CFile::removeDirectoryRecursively(fits.c_str(), true));
    EXPECT_FALSE(CFile::access(fits.c_str(), F_OK));
    EXPECT_TRUE(CFile::access(tooLong.c_str(), F_OK));
}

} // namespace
} // namespace Infra
} // namespace Tarsel
