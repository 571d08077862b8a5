// Older files, listings, and file systems that are tables of functions.

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "Infra/File.h"
#include "Older/HookedAccess.h"
#include "Support/ChildProcess.h"
#include "Support/FailingHeap.h"
#include "Support/LogCapture.h"
#include "Support/TemporaryFolder.h"

namespace
{

using Tarsel::TestSupport::CLogCapture;
using Tarsel::TestSupport::CMemoryShortage;
using Tarsel::TestSupport::CTemporaryFolder;
using Tarsel::TestSupport::inChild;
using Tarsel::TestSupport::Shortage;

TEST(OlderFileTest, FilesAndListingsAreTheNewerOnes)
{
    CLogCapture log;
    const CTemporaryFolder folder;
    const std::string path = folder.path("file");
    CFile file;
    char line[16];
    ASSERT_TRUE(file.Open(path.c_str(), CFile::modeReadWrite | CFile::modeCreate));
    EXPECT_TRUE(file.IsOpened());
    EXPECT_EQ(file.Write(const_cast<char*>("one\ntwo\n"), 8), 8);
    EXPECT_GE(file.Puts("three\n"), 0);
    file.Flush();
    EXPECT_EQ(file.GetLength(), 14U);
    EXPECT_EQ(file.Seek(-6, CFile::end), 8U);
    EXPECT_EQ(file.Seek(0, 9), 0U); // from nowhere
    EXPECT_EQ(file.Seek(4, CFile::begin), 4U);
    EXPECT_STREQ(file.Gets(line, sizeof(line)), "two\n");
    EXPECT_EQ(file.GetPosition(), 8U);
    EXPECT_EQ(file.Read(line, sizeof(line)), 6);
    file.Close();
    EXPECT_EQ(file.Read(line, 1), -1);
    const unsigned char* const loaded = file.Load(path.c_str());
    ASSERT_NE(loaded, nullptr);
    EXPECT_EQ(memcmp(loaded, "one\ntwo\nthree\n", 14), 0);
    file.UnLoad();
    EXPECT_FALSE(file.IsOpened());

    FileInfo info = {};
    uint64_t bytes[3] = {};
    EXPECT_TRUE(CFile::Rename(path.c_str(), folder.path("renamed").c_str()));
    EXPECT_TRUE(CFile::Stat(folder.path("renamed").c_str(), &info));
    EXPECT_EQ(info.size, 14U);
    EXPECT_FALSE(CFile::Stat(folder.path("renamed").c_str(), nullptr));
    EXPECT_TRUE(CFile::StatFS(folder.path().c_str(), bytes[0], bytes[1], bytes[2]));
    EXPECT_TRUE(CFile::MakeDirectory(folder.path("sub").c_str()));
    CFileFind finder;
    bool isListed = finder.findFile((folder.path() + "/*").c_str());
    while (isListed && finder.getFileName() != "renamed") {
        isListed = finder.findNextFile();
    }
    ASSERT_TRUE(isListed);
    EXPECT_EQ(finder.getFilePath(), folder.path("renamed"));
    EXPECT_EQ(finder.getLength(), 14U);
    EXPECT_TRUE(finder.isNormal() && !finder.isDirectory() && !finder.isReadOnly() &&
                !finder.isHidden());
    finder.close();
    FSOperations listing = {};
    listing.findfirst = [](const char*, FileInfo& found) {
        found.attrib = Tarsel::Infra::CFile::readOnly | Tarsel::Infra::CFile::hidden |
                       Tarsel::Infra::CFile::directory;
        return 1L;
    };
    hookFS("/attributes/", &listing);
    ASSERT_TRUE(finder.findFile("/attributes/*"));
    EXPECT_TRUE(!finder.isNormal() && finder.isDirectory() && finder.isReadOnly() &&
                finder.isHidden());
    finder.close();
    hookFS("/attributes/", nullptr);
    EXPECT_TRUE(CFile::RemoveDirectory(folder.path("sub").c_str()));
    EXPECT_TRUE(CFile::Remove(folder.path("renamed").c_str()));
    EXPECT_FALSE(CFile::Access(folder.path("renamed").c_str(), 0));
}

std::string shown(const char* text)
{
    return text;
}
std::string shown(const void* pointer)
{
    return std::to_string(reinterpret_cast<uintptr_t>(pointer));
}
std::string shown(const FileInfo& info)
{
    return info.name;
}
template <typename Number>
std::enable_if_t<std::is_arithmetic_v<Number>, std::string> shown(Number number)
{
    return std::to_string(number);
}

std::string s_call;
/// Keeps its arguments, and returns what tells it from the others.
template <long Place, typename Result, typename... Parameters>
Result recorded(Parameters... arguments)
{
    s_call = std::to_string(Place);
    (s_call.append(" ").append(shown(arguments)), ...);
    if constexpr (std::is_pointer_v<Result>) {
        return reinterpret_cast<Result>(100 + Place);
    } else {
        return static_cast<Result>(100 + Place);
    }
}

template <long Place, typename Result, typename... Parameters>
void record(FSOperations& table, Result (*&function)(Parameters...))
{
    EXPECT_EQ(reinterpret_cast<char*>(&function) - reinterpret_cast<char*>(&table), Place * 8);
    function = recorded<Place, Result, Parameters...>;
}

template <typename Result>
std::string called(Result result)
{
    return s_call + " -> " + std::to_string((long)result); // NOLINT: a number or a pointer
}

TEST(OlderFileTest, EachOperationOfAFileSystemIsItsFunctionOfTheTable)
{
    FSOperations table = {};
    record<0>(table, table.fopen);
    record<1>(table, table.fclose);
    record<2>(table, table.fread);
    record<3>(table, table.fwrite);
    record<4>(table, table.fflush);
    record<5>(table, table.fseek);
    record<6>(table, table.ftell);
    record<7>(table, table.fgets);
    record<8>(table, table.fputs);
    record<9>(table, table.rename);
    record<10>(table, table.remove);
    record<11>(table, table.findfirst);
    record<12>(table, table.findnext);
    record<13>(table, table.findclose);
    record<14>(table, table.mkdir);
    record<15>(table, table.rmdir);
    record<16>(table, table.statfs);
    record<17>(table, table.access);
    record<18>(table, table.stat);
    CFSOperation operation(table);
    Tarsel::Infra::IFileSystem& fs = operation;
    auto* const file = reinterpret_cast<FileHandle>(7);
    auto* const buffer = reinterpret_cast<void*>(8);
    char line[] = "line";
    FileInfo info = {};
    strcpy(info.name, "info");
    uint64_t a = 1;
    uint64_t b = 2;
    uint64_t c = 3;
    EXPECT_EQ(called(fs.fopen("path", "rb")), "0 path rb -> 100");
    EXPECT_EQ(called(fs.fclose(file)), "1 7 -> 101");
    EXPECT_EQ(called(fs.fread(buffer, 3, 4, file)), "2 8 3 4 7 -> 102");
    EXPECT_EQ(called(fs.fwrite(buffer, 3, 4, file)), "3 8 3 4 7 -> 103");
    EXPECT_EQ(called(fs.fflush(file)), "4 7 -> 104");
    EXPECT_EQ(called(fs.fseek(file, 3, 4)), "5 7 3 4 -> 105");
    EXPECT_EQ(called(fs.ftell(file)), "6 7 -> 106");
    EXPECT_EQ(called(fs.fgets(line, 3, file)), "7 line 3 7 -> 107");
    EXPECT_EQ(called(fs.fputs("text", file)), "8 text 7 -> 108");
    EXPECT_EQ(called(fs.rename("old", "new")), "9 old new -> 109");
    EXPECT_EQ(called(fs.remove("path")), "10 path -> 110");
    EXPECT_EQ(called(fs.findfirst("pattern", info)), "11 pattern info -> 111");
    EXPECT_EQ(called(fs.findnext(3, info)), "12 3 info -> 112");
    EXPECT_EQ(called(fs.findclose(3)), "13 3 -> 113");
    EXPECT_EQ(called(fs.mkdir("path")), "14 path -> 114");
    EXPECT_EQ(called(fs.rmdir("path")), "15 path -> 115");
    EXPECT_EQ(called(fs.statfs("path", a, b, c)), "16 path 1 2 3 -> 116");
    EXPECT_EQ(called(fs.access("path", 4)), "17 path 4 -> 117");
    EXPECT_EQ(called(fs.stat("path", info)), "18 path info -> 118");
    EXPECT_EQ(fs.writev(1, nullptr, 1), 0U);
}

TEST(OlderFileTest, HookingAgainTakesNoMemory)
{
    inChild([] {
        Tarsel::Infra::setPrintLogLevel(Tarsel::Infra::logLevelFatal);
        const std::string fits = "/" + std::string(30, 'f');
        FSOperations table = {};
        table.access = accessHooked;
        // One that is cut cannot be taken back by its own name.
        for (const std::string& path : {fits, fits + "tail"}) {
            const auto hookAndUnhook = [&] {
                hookFS(path.c_str(), &table);
                EXPECT_TRUE(CFile::Access(path.c_str(), 0));
                Tarsel::Infra::hookFileSystem(path.c_str(), nullptr);
                hookFS(fits.c_str(), nullptr);
            };
            hookAndUnhook();
            const CMemoryShortage shortage(1, Shortage::lasting);
            hookAndUnhook();
            EXPECT_FALSE(CMemoryShortage::wasFelt());
        }
    });
}

TEST(OlderFileTest, PlacesHold31CharactersAndThereAre31)
{
    CLogCapture log;
    FSOperations table = {};
    table.access = accessHooked;
    const std::string fits = "/" + std::string(30, 'f');
    const std::string longer = fits + "tail";
    hookFS(fits.c_str(), &table);
    EXPECT_TRUE(CFile::Access(fits.c_str(), 0));
    hookFS(fits.c_str(), nullptr);
    EXPECT_FALSE(CFile::Access(fits.c_str(), 0));
    hookFS(longer.c_str(), &table);
    EXPECT_FALSE(CFile::Access(fits.c_str(), 0));
    hookFS(longer.c_str(), nullptr); // its place has another name
    EXPECT_TRUE(CFile::Access(longer.c_str(), 0));
    Tarsel::Infra::hookFileSystem(longer.c_str(), nullptr);
    hookFS(fits.c_str(), nullptr); // frees the place

    for (int i = 0; i <= 31; ++i) {
        hookFS(("/place" + std::to_string(i) + "/").c_str(), &table);
        EXPECT_EQ(CFile::Access(("/place" + std::to_string(i) + "/x").c_str(), 0), i < 31) << i;
    }
    hookFS("/place7/", nullptr);
    hookFS("/another/", &table);
    EXPECT_TRUE(CFile::Access("/another/x", 0));
    for (int i = 0; i <= 31; ++i) {
        hookFS(("/place" + std::to_string(i) + "/").c_str(), nullptr);
    }
    hookFS("/another/", nullptr);
    EXPECT_FALSE(CFile::Access("/place30/x", 0) || CFile::Access("/another/x", 0));
}

} // namespace
