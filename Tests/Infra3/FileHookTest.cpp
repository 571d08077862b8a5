// Which file system a path goes to: hooks as objects and as tables, and the one in memory.

#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Examples/MemoryFiles/MemoryFileSystem.h"
#include "Infra/File.h"
#include "Infra/Infra3/File.h"
#include "Infra/Infra3/FileFind.h"
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

TEST(MemoryFileSystemTest, ItRefusesWhatADiskRefuses)
{
    CMemoryFileSystem memory("/memory", 100);
    memory.mkdir("/memory/a");
    memory.mkdir("/memory/a/b");
    memory.mkdir("/memory/c");
    const FileHandle file = memory.fopen("/memory/file", "wb+");
    const struct
    {
        const char* from;
        const char* to;
        int error;
    } renames[] = {
        {"/memory/a", "/memory/a/b/a", EINVAL},   {"/memory/c", "/memory/a", ENOTEMPTY},
        {"/memory/c", "/memory/file/c", ENOTDIR}, {"/memory/c", "/memory/file", ENOTDIR},
        {"/memory/file", "/memory/c", EISDIR},    {"/memory/no", "/memory/no", ENOENT},
        {"/memory/a", "/memory/a/", 0},           {"/memory/a", "/memory/c", 0},
    };
    for (const auto& one : renames) {
        errno = 0;
        EXPECT_EQ(memory.rename(one.from, one.to), one.error == 0 ? 0 : -1) << one.to;
        EXPECT_EQ(errno, one.error) << one.from << " to " << one.to;
    }
    EXPECT_EQ(memory.access("/memory/c/b", F_OK), 0);

    EXPECT_EQ(memory.fwrite("0123456789", 1, 10, file), 10U);
    EXPECT_EQ(memory.fseek64(file, 0, 3), -1);
    EXPECT_EQ(memory.fseek64(file, INT64_MAX, SEEK_END), -1);
    EXPECT_EQ(memory.ftell(file), 10);
    EXPECT_EQ(memory.fseek64(file, 200, SEEK_SET), 0);
    EXPECT_EQ(memory.fwrite("x", 1, 1, file), 0U); // no room to get there
    FileInfo info = {};
    EXPECT_EQ(memory.stat("/memory/file", info), 0);
    EXPECT_EQ(info.size, 10U);
    memory.fseek64(file, 98, SEEK_SET);
    EXPECT_EQ(memory.fwrite("0123456789", 1, 10, file), 2U);
    memory.fclose(file);
}

TEST(HookTest, AFileSystemIsAskedNoMoreThanNeeded)
{
    CLogCapture log;
    CNotingFileSystem memory("/memory", 1 << 20);
    const CHook hook("/memory", memory);
    char text[] = "text";
    CFile file;
    file.open("/memory/a",
              CFile::modeReadWrite | CFile::modeCreate | CFile::modeNoInherit | CFile::osNoBuffer);
    EXPECT_EQ(memory.calls, "fopen(wb+ed) ftell ");
    memory.calls.clear();
    file.write(text, 4);
    EXPECT_EQ(memory.calls, "fwrite ftell ");
    memory.calls.clear();
    EXPECT_EQ(file.seek(0, CFile::current) + file.seek(4, CFile::begin) + file.getLength(), 12U);
    EXPECT_EQ(memory.calls, "");
    file.seek(0, CFile::end);
    EXPECT_EQ(memory.calls, "fseek ftell ");
    file.open("/memory/a", CFile::modeRead);
    EXPECT_EQ(memory.calls, "fseek ftell fopen(rb) ftell stat ");
}

/// "1" for the first, "2" for the second, "-" for neither.
std::string ownerOf(const std::string& path, CMemoryFileSystem& first, CMemoryFileSystem& second)
{
    const int before[] = {first.openHandles(), second.openHandles()};
    CFileFind finder;
    finder.findFile(path.c_str());
    if (first.openHandles() > before[0]) {
        return "1";
    }
    return second.openHandles() > before[1] ? "2" : "-";
}

TEST(HookTest, TheLowestPlaceWhosePrefixFitsWins)
{
    CLogCapture log;
    CMemoryFileSystem first("/memory/a", 1 << 20);
    CMemoryFileSystem second("/memory/a", 1 << 20);
    first.mkdir("/memory/a/b");
    second.mkdir("/memory/a/b");
    const auto owner = [&](const char* path) { return ownerOf(path, first, second); };

    EXPECT_EQ(owner("/memory/a/b"), "-");
    hookFileSystem("/memory/a/b", &first);
    hookFileSystem("/memory/a", &second);
    hookFileSystem("/memory/a/b", &second); // the same prefix again
    EXPECT_EQ(owner("/memory/a/b") + owner("/memory/a"), "12");
    hookFileSystem("/memory/a/b", nullptr); // the first of the two
    EXPECT_EQ(owner("/memory/a/b"), "2");
    hookFileSystem("/memory", &first); // into the place that is free
    EXPECT_EQ(owner("/memory/a/b") + owner("/memory/a"), "11");
    hookFileSystem("/memory", nullptr);
    hookFileSystem("/memory/a/b", nullptr);
    hookFileSystem("/memory/a/", nullptr); // not exactly
    EXPECT_EQ(owner("/memory/a/b"), "2");
    hookFileSystem("/memory/a", nullptr);
    EXPECT_EQ(owner("/memory/a/b"), "-");
    hookFileSystem(nullptr, &first);
    hookFileSystem("", &first);
    EXPECT_EQ(owner("/memory/a/b"), "-");
    EXPECT_EQ(TestSupport::countOf(log.takeLeveled(), announcement), 11);
}

TEST(HookTest, ThereAre31PlacesFor255Characters)
{
    CLogCapture log;
    CMemoryFileSystem memory("/memory", 1 << 20);
    CMemoryFileSystem other("/memory", 1 << 20);
    TestSupport::inChild([&] {
        const std::string prefix = std::string("/") + std::string(254, 'p');
        hookFileSystem((prefix + "cut").c_str(), &memory);
        FileInfo info = {};
        EXPECT_FALSE(CFile::stat((prefix + "/x").c_str(), info)); // memory has no such file
        uint64_t size[3] = {};
        EXPECT_TRUE(CFile::statFS((prefix + "x").c_str(), size[0], size[1], size[2]));
        hookFileSystem((prefix + "cut").c_str(), nullptr); // longer than any that is kept
        EXPECT_TRUE(CFile::statFS((prefix + "x").c_str(), size[0], size[1], size[2]));
        for (int i = 2; i <= 32; ++i) {
            hookFileSystem((std::string("/memory") + std::to_string(i) + "/").c_str(), &memory);
        }
        EXPECT_TRUE(CFile::statFS("/memory31/x", size[0], size[1], size[2]));
        EXPECT_FALSE(CFile::statFS("/memory32/x", size[0], size[1], size[2]));
    });
}

TEST(HookTest, WhatIsOpenStaysWithTheFileSystemThatOpenedIt)
{
    CLogCapture log;
    CMemoryFileSystem memory("/memory", 1 << 20);
    char text[] = "text";
    CFile file;
    CFileFind finder;
    hookFileSystem("/memory", &memory);
    file.open("/memory/file", CFile::modeWrite);
    EXPECT_TRUE(finder.findFile("/memory/*"));
    hookFileSystem("/memory", nullptr);
    EXPECT_EQ(file.write(text, 4), 4);
    EXPECT_TRUE(finder.findNextFile());
    EXPECT_FALSE(CFile::access("/memory/file", F_OK));
    EXPECT_EQ(memory.openHandles(), 2);
    file.close();
    finder.close();
    EXPECT_EQ(memory.openHandles(), 0);
}

TEST(HookTest, HooksMayComeAndGoWhileOthersUseFiles)
{
    CLogCapture log;
    const CTemporaryFolder folder;
    CMemoryFileSystem memory("/memory", 1 << 20);
    CHook lasting("/memory/", memory);
    std::vector<std::thread> users;
    for (int user = 0; user < 4; ++user) {
        users.emplace_back([&folder, user] {
            const std::string name = std::string("file") + std::to_string(user);
            for (int i = 0; i < 200; ++i) {
                char text[] = "text";
                CFile system;
                CFile inMemory;
                ASSERT_TRUE(system.open(folder.path(name).c_str(), CFile::modeWrite));
                ASSERT_TRUE(
                    inMemory.open((std::string("/memory/") + name).c_str(), CFile::modeWrite));
                EXPECT_EQ(system.write(text, 4) + inMemory.write(text, 4), 8);
            }
        });
    }
    for (int i = 0; i < 500; ++i) {
        hookFileSystem("/memory", i % 2 == 0 ? &memory : nullptr);
    }
    for (std::thread& user : users) {
        user.join();
    }
    EXPECT_EQ(contentOf(folder.path("file3")), "text");
}

TEST(HookTest, TablesOfFunctionsAreFileSystemsAndOutliveTheirHook)
{
    CLogCapture log;
    FSOperations operations = {};
    operations.fopen = [](const char*, const char*) -> FileHandle {
        return reinterpret_cast<FileHandle>(0x12345); // a number that only the table knows
    };
    operations.ftell = [](FileHandle) { return 5L; };
    operations.fclose = [](FileHandle) { return 0; };
    operations.stat = [](const char*, FileInfo& info) { return info.size = 9, 0; };
    hookFS("/table/", &operations);
    operations = {}; // it was copied
    hookFS(nullptr, &operations);

    char byte = 'x';
    const io_vec vector = {&byte, 1};
    CFile file;
    CLfsFile large;
    ASSERT_TRUE(file.open("/table/file", CFile::modeRead));
    hookFS("/table", nullptr); // not that one
    ASSERT_TRUE(large.open("/table/file", CFile::modeRead));
    hookFS("/table/", nullptr);
    EXPECT_FALSE(CFile::access("/table/file", F_OK));
    EXPECT_EQ(file.getPosition(), 5U);
    EXPECT_EQ(large.getPosition(), 0); // no such operation in a table
    EXPECT_EQ(large.getLength(), 9);
    EXPECT_EQ(file.writev(&vector, 1), 0);
    log.clear();
    EXPECT_FALSE(file.setvbuf(nullptr, CFile::IONBF, 0));
    EXPECT_EQ(log.takeLeveled(), "warn|CFile::setvbuf failed\n");
    EXPECT_EQ(file.write(&byte, 1), 0); // left out
    file.close();
    large.close();

    TestSupport::inChild([] {
        const FSOperations none = {};
        for (int i = 0; i < 33; ++i) {
            hookFS((std::string("/table") + std::to_string(i)).c_str(), &none);
        }
        uint64_t size[3] = {1, 1, 1};
        EXPECT_FALSE(CFile::statFS("/table30", size[0], size[1], size[2]));
        EXPECT_EQ(size[0], 1U); // a table was asked
        EXPECT_FALSE(CFile::statFS("/TABLE", size[0], size[1], size[2]));
        EXPECT_EQ(size[0], 0U); // the system was
    });
}

TEST(HookTest, ATableThatIsHookedAgainIsUsedAgain)
{
    CLogCapture log;
    FSOperations operations = {};
    operations.access = [](const char*, int) { return 0; };
    const auto hookAndUnhook = [&operations] {
        hookFS("/again/", &operations);
        EXPECT_TRUE(CFile::access("/again/x", F_OK));
        hookFS("/again/", nullptr);
        EXPECT_FALSE(CFile::access("/again/x", F_OK));
    };
    hookAndUnhook();
    log.clear();
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 1000; ++i) {
        hookAndUnhook();
        log.clear();
    }
    EXPECT_LT(mallinfo2().uordblks, before + 100000); // an entry has some 350 bytes
    operations.access = [](const char*, int) { return -1; };
    hookFS("/again/", &operations);
    EXPECT_FALSE(CFile::access("/again/x", F_OK)); // another table
    hookFS("/again/", nullptr);
    hookFS("", &operations);
    log.clear();
    hookFS("/again/", nullptr);
    EXPECT_EQ(log.takeLeveled(), "");
}

TEST(HookTest, TablesComeAndGoOnSeveralThreads)
{
    CLogCapture log;
    FSOperations operations = {};
    operations.access = [](const char*, int) { return 0; };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&operations] {
            for (int round = 0; round < 500; ++round) {
                hookFS("/contended/", &operations);
                hookFS("/contended/", nullptr);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(CFile::access("/contended/x", F_OK)); // no hook has lost its table
}

} // namespace
} // namespace Infra
} // namespace Tarsel
