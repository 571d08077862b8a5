// Files on the system and on a file system in memory.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
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

// Applications are compiled with these numbers, and hooks and settings carry them.
template <typename File>
constexpr bool hasItsNumbers()
{
    return File::modeRead == 0 && File::modeWrite == 1 && File::modeReadWrite == 2 &&
           File::shareCompat == 0 && File::shareExclusive == 16 && File::shareDenyWrite == 32 &&
           File::shareDenyRead == 48 && File::shareDenyNone == 64 && File::modeNoInherit == 128 &&
           File::modeCreate == 4096 && File::modeNoTruncate == 8192 && File::typeText == 16384 &&
           File::typeBinary == 32768 && File::osNoBuffer == 65536 &&
           File::osWriteThrough == 131072 && File::osRandomAccess == 262144 &&
           File::osSequentialScan == 524288 && File::IOFBF == 0 && File::IOLBF == 1 &&
           File::IONBF == 2 && File::begin == 0 && File::current == 1 && File::end == 2;
}
static_assert(hasItsNumbers<CFile>() && hasItsNumbers<CLfsFile>());
static_assert(CFile::normal == 0 && CFile::readOnly == 1 && CFile::hidden == 2 &&
              CFile::system == 4 && CFile::volume == 8 && CFile::directory == 16 &&
              CFile::archive == 32 && CFile::posixFIFO == 4096 && CFile::posixCharacter == 8192 &&
              CFile::posixDirectory == 16384 && CFile::posixRegular == 32768);

template <typename File>
class StreamTest : public testing::Test
{
protected:
    CTemporaryFolder folder;
    CLogCapture log;
    File file;
    char bytes[64] = {};

    bool open(const std::string& path, uint32_t flags) { return file.open(path.c_str(), flags); }
    long write(const std::string& text)
    {
        std::string copy = text;
        return file.write(copy.data(), static_cast<long>(copy.size()));
    }
    std::string read(size_t size)
    {
        std::string text(size, '\0');
        const long count = file.read(text.data(), static_cast<long>(size));
        return count < 0 ? "closed" : text.substr(0, static_cast<size_t>(count));
    }
    /// "position/length"
    std::string place() { return std::to_string(file.getPosition()) + "/" + length(); }
    std::string length() { return std::to_string(file.getLength()); }
};

typedef testing::Types<CFile, CLfsFile> Files;
TYPED_TEST_SUITE(StreamTest, Files);

struct OpenCase
{
    uint32_t flags;
    const char* before;  ///< null: no file
    const char* place;   ///< after opening; null: refused
    const char* written; ///< after two bytes; null: refused
    const char* after;   ///< content in the end
};

TYPED_TEST(StreamTest, AccessModesDecideWhatIsMadeKeptAndAppendedTo)
{
    const uint32_t create = CFile::modeCreate;
    const uint32_t keep = CFile::modeNoTruncate;
    const uint32_t readWrite = CFile::modeReadWrite;
    const OpenCase cases[] = {
        {CFile::modeRead, nullptr, nullptr, nullptr, ""},
        {CFile::modeRead, "abcdef", "0/6", nullptr, "abcdef"},
        {CFile::modeRead | create, "abcdef", "0/6", nullptr, "abcdef"},
        {CFile::modeWrite, nullptr, "0/0", "2/2", "XY"},
        {CFile::modeWrite, "abcdef", "0/0", "2/2", "XY"},
        {CFile::modeWrite | keep, "abcdef", "0/6", "8/8", "abcdefXY"},
        {readWrite, nullptr, nullptr, nullptr, ""},
        {readWrite, "abcdef", "0/6", "2/6", "XYcdef"},
        {readWrite | keep | CFile::shareDenyWrite | CFile::typeText, "abcdef", "0/6", "2/6",
         "XYcdef"},
        {readWrite | create, nullptr, "0/0", "2/2", "XY"},
        {readWrite | create, "abcdef", "0/0", "2/2", "XY"},
        {readWrite | create | keep, nullptr, "0/0", "2/2", "XY"},
        {readWrite | create | keep, "abcdef", "0/6", "8/8", "abcdefXY"},
    };
    for (const OpenCase& one : cases) {
        const std::string path = this->folder.path("file");
        fs::remove(path);
        if (one.before != nullptr) {
            setContent(path, one.before);
        }
        SCOPED_TRACE(testing::Message() << one.flags << (one.before ? one.before : " missing"));
        ASSERT_EQ(this->open(path, one.flags), one.place != nullptr);
        EXPECT_EQ(this->file.isOpen(), one.place != nullptr);
        if (one.place != nullptr) {
            EXPECT_EQ(this->place(), one.place);
            EXPECT_EQ(this->write("XY"), one.written == nullptr ? 0 : 2);
            EXPECT_EQ(this->place(), one.written == nullptr ? one.place : one.written);
        }
        this->file.close();
        EXPECT_EQ(contentOf(path), one.after);
    }
    unended(this->log);
}

TYPED_TEST(StreamTest, UnknownAccessModesAreRefusedWithAMessage)
{
    const std::string path = this->folder.path("file");
    setContent(path, "abc");
    const std::string name = std::is_same<TypeParam, CFile>::value ? "CFile" : "CLfsFile";
    for (const uint32_t mode : {3U, 4U, 15U}) {
        ASSERT_TRUE(this->open(path, CFile::modeRead));
        EXPECT_FALSE(this->open(path, mode));
        EXPECT_FALSE(this->file.isOpen());
        EXPECT_EQ(this->log.takeLeveled(), std::string("error|this:") + pointer(&this->file) + " " +
                                               name + "::open() dwFlags:" + std::to_string(mode) +
                                               " is invalid\n");
    }
}

TYPED_TEST(StreamTest, AClosedFileAnswersWithoutAFile)
{
    io_vec vector = {this->bytes, 1};
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(this->file.read(this->bytes, 1), -1);
        EXPECT_EQ(this->file.write(this->bytes, 1), -1);
        EXPECT_EQ(this->file.writev(&vector, 1), -1);
        EXPECT_EQ(this->file.seek(1, TypeParam::begin), 0);
        EXPECT_EQ(this->place(), "0/0");
        EXPECT_EQ(this->file.puts("x"), 0);
        EXPECT_EQ(this->file.puts(nullptr), 0);
        EXPECT_EQ(this->file.gets(this->bytes, 8), nullptr);
        EXPECT_FALSE(this->file.setvbuf(nullptr, TypeParam::IONBF, 0));
        EXPECT_FALSE(this->file.resv1() || this->file.resv2() || this->file.resv3() ||
                     this->file.resv4());
        this->file.flush();
        this->file.close();
        this->file.unload();
        EXPECT_EQ(this->log.takeLeveled(),
                  "warn|CFile::setvbuf failed, file has not been opened!\n");
        ASSERT_TRUE(this->open(this->folder.path("file"), CFile::modeWrite)); // and closed again
        this->file.close();
    }
}

/// Every operation, with position and length after it: the same on the system and in memory.
TYPED_TEST(StreamTest, PositionsAndLengthsOfAWholeSession)
{
    CMemoryFileSystem memory("/memory", 1 << 20);
    const CHook hook("/memory", memory);
    for (const std::string& path : {this->folder.path("file"), std::string("/memory/file")}) {
        SCOPED_TRACE(path);
        TypeParam& file = this->file;
        ASSERT_TRUE(this->open(path, CFile::modeReadWrite | CFile::modeCreate));
        EXPECT_EQ(this->write("one\ntwo\nthree\n"), 14);
        EXPECT_EQ(this->place(), "14/14");
        EXPECT_EQ(file.seek(4, TypeParam::begin), 4);
        EXPECT_STREQ(file.gets(this->bytes, 64), "two\n");
        EXPECT_EQ(this->place(), "8/14");
        EXPECT_STREQ(file.gets(this->bytes, 4), "thr");
        EXPECT_EQ(file.seek(0, TypeParam::current), 11);
        EXPECT_EQ(file.seek(-2, TypeParam::current), 9);
        EXPECT_EQ(file.seek(-100, TypeParam::current), 0); // refused
        EXPECT_EQ(this->place(), "9/14");
        EXPECT_EQ(file.seek(-3, TypeParam::end), 11);
        EXPECT_EQ(this->read(64), "ee\n");
        EXPECT_EQ(this->read(64), "");
        EXPECT_EQ(file.gets(this->bytes, 64), nullptr);
        EXPECT_EQ(this->place(), "14/14");
        EXPECT_EQ(file.seek(0, TypeParam::end), 14);
        EXPECT_GE(file.puts("four\n"), 0);
        EXPECT_EQ(file.puts(nullptr), -1);
        EXPECT_EQ(this->place(), "19/19");
        file.flush();
        EXPECT_EQ(file.seek(1, TypeParam::begin), 1);
        EXPECT_EQ(this->write("N"), 1);
        EXPECT_EQ(this->place(), "2/19");
        EXPECT_EQ(file.seek(30, TypeParam::begin), 30); // a gap, filled with zeros
        EXPECT_EQ(this->write("!"), 1);
        EXPECT_EQ(this->place(), "31/31");

        const std::string other = path + "2";
        EXPECT_TRUE(TypeParam::rename(path.c_str(), other.c_str()));
        errno = ENXIO;
        uint8_t* const loaded = file.load(other.c_str());
        ASSERT_NE(loaded, nullptr);
        EXPECT_EQ(errno, ENXIO);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(loaded), 31),
                  std::string("oNe\ntwo\nthree\nfour\n") + std::string(11, '\0') + "!");
        EXPECT_EQ(this->place(), "31/31");
        EXPECT_EQ(file.load("/no/such/file"), loaded);
        file.unload();
        EXPECT_FALSE(file.isOpen());
        EXPECT_TRUE(TypeParam::remove(other.c_str()));
        EXPECT_EQ(file.load(other.c_str()), nullptr);
    }
    EXPECT_EQ(memory.openHandles(), 0);
}

/// A stream of the system library with the buffer that a file has.
std::unique_ptr<FILE, int (*)(FILE*)> plainStream(const std::string& path)
{
    FILE* const stream = ::fopen(path.c_str(), "wb+");
    static char buffer[16384];
    ::setvbuf(stream, buffer, _IOFBF, sizeof(buffer));
    return {stream, fclose};
}

/// What is counted must be what the stream would say, whatever was done to it.
TYPED_TEST(StreamTest, CountedPositionsAreThoseOfAStreamThatIsAsked)
{
    std::mt19937 random(7);
    const std::string text("ab\nc\0d", 6);
    ASSERT_TRUE(this->open(this->folder.path("file"), CFile::modeReadWrite | CFile::modeCreate));
    const auto asked = plainStream(this->folder.path("asked"));
    io_vec vector = {this->bytes, 9};
    for (int step = 0; step < 1000; ++step) {
        const long number = static_cast<long>(random() % 30000);
        switch (random() % 10) {
        case 0:
            this->file.seek(number, TypeParam::begin);
            fseek(asked.get(), number, SEEK_SET);
            break;
        case 1:
            this->file.seek(-(number % 5), TypeParam::end);
            fseek(asked.get(), -(number % 5), SEEK_END);
            break;
        case 2: {
            std::string line(8, '\0');
            this->file.seek(number % 50, TypeParam::begin);
            this->file.gets(line.data(), 8);
            fseek(asked.get(), number % 50, SEEK_SET);
            (void)fgets(line.data(), 8, asked.get());
            this->file.flush(); // a read may be followed by a write after this
            fseek(asked.get(), 0, SEEK_CUR);
            break;
        }
        case 3: {
            std::string block(300, '\0');
            this->file.seek(-(number % 600), TypeParam::end);
            this->file.read(block.data(), 300);
            fseek(asked.get(), -(number % 600), SEEK_END);
            (void)fread(block.data(), 1, 300, asked.get());
            this->file.flush();
            fseek(asked.get(), 0, SEEK_CUR);
            break;
        }
        case 4:
            this->file.puts("a line\n");
            fputs("a line\n", asked.get());
            break;
        case 5: // what it says is its own affair until a write follows
            this->file.flush();
            this->file.writev(&vector, 1);
            fflush(asked.get());
            (void)::writev(fileno(asked.get()), reinterpret_cast<iovec*>(&vector), 1);
            [[fallthrough]];
        default: {
            std::string record;
            while (record.size() < static_cast<size_t>(number % 300)) {
                record += text;
            }
            this->write(record);
            fwrite(record.data(), 1, record.size(), asked.get());
        }
        }
        ASSERT_EQ(static_cast<long>(this->file.getPosition()), ftell(asked.get())) << step;
    }
    this->file.close();
    fflush(asked.get());
    EXPECT_EQ(contentOf(this->folder.path("file")), contentOf(this->folder.path("asked")));
}

/// What comes between two writes when the disk has room for 64 bytes of the first: the stream writes
/// out what it has, fails, and may lose the rest.
TYPED_TEST(StreamTest, NothingIsCountedOnBehindAFailure)
{
    typedef std::function<void(TypeParam&)> OfFile;
    typedef std::function<void(FILE*)> OfStream;
    static char block[20000] = {};
    const std::tuple<const char*, OfFile, OfStream> disturbances[] = {
        {"seek", [](TypeParam& file) { file.seek(50, TypeParam::begin); },
         [](FILE* stream) { fseek(stream, 50, SEEK_SET); }},
        {"read", [](TypeParam& file) { file.read(block, 10); },
         [](FILE* stream) { (void)fread(block, 1, 10, stream); }},
        {"setvbuf", [](TypeParam& file) { file.setvbuf(nullptr, TypeParam::IONBF, 0); },
         [](FILE* stream) { ::setvbuf(stream, nullptr, _IONBF, 0); }},
        {"write", [](TypeParam& file) { file.write(block, 20000); },
         [](FILE* stream) { (void)fwrite(block, 1, 20000, stream); }},
    };
    TestSupport::inChild([&] {
        signal(SIGXFSZ, SIG_IGN);
        for (const auto& [name, ofFile, ofStream] : disturbances) {
            const std::string path = this->folder.path(name);
            const auto asked = plainStream(path + "-asked");
            ASSERT_TRUE(this->open(path, CFile::modeReadWrite | CFile::modeCreate));
            this->write(std::string(100, 'x'));
            fwrite(block, 1, 100, asked.get());
            rlimit limit = {};
            getrlimit(RLIMIT_FSIZE, &limit);
            const rlimit small = {64, limit.rlim_max};
            setrlimit(RLIMIT_FSIZE, &small);
            ofFile(this->file);
            ofStream(asked.get());
            setrlimit(RLIMIT_FSIZE, &limit);
            this->write("0123456789");
            fwrite("0123456789", 1, 10, asked.get());
            EXPECT_EQ(static_cast<long>(this->file.getPosition()), ftell(asked.get())) << name;
            this->file.close();
        }
    });
    unended(this->log);
}

TYPED_TEST(StreamTest, ReadingOnAfterWritingLosesNothing)
{
    const std::string path = this->folder.path("file");
    setContent(path, std::string(20000, 'o'));
    for (const long wanted : {19980, 40}) {
        ASSERT_TRUE(this->open(path, CFile::modeReadWrite));
        EXPECT_EQ(this->read(10), "oooooooooo");
        this->write("new");
        this->file.seek(0, TypeParam::current); // to where it stands, which makes no call
        EXPECT_EQ(this->read(static_cast<size_t>(wanted)), std::string(wanted, 'o'));
        this->file.close();
        EXPECT_EQ(contentOf(path).substr(0, 15), "oooooooooonewoo");
    }
}

TYPED_TEST(StreamTest, ASeekGoesToThePlaceAlthoughThePositionIsBehind)
{
    const std::string path = this->folder.path("file");
    setContent(path, std::string("a\0b\nrest", 8));
    ASSERT_TRUE(this->open(path, CFile::modeRead));
    this->file.gets(this->bytes, 64);
    EXPECT_EQ(this->place(), "1/8"); // a text ends at its terminator
    this->file.seek(1, TypeParam::begin);
    EXPECT_EQ(this->read(64), std::string("\0b\nrest", 7));
}

TYPED_TEST(StreamTest, TheNameOfTheNextFileMayStandInTheLoadedOne)
{
    const std::string next = this->folder.path("next");
    setContent(this->folder.path("file"), next + std::string("\0", 1));
    setContent(next, "content");
    const uint8_t* const loaded = this->file.load(this->folder.path("file").c_str());
    ASSERT_NE(loaded, nullptr);
    ASSERT_TRUE(this->file.open(reinterpret_cast<const char*>(loaded), CFile::modeRead));
    EXPECT_EQ(this->read(64), "content");
}

TEST(FileTest, ReadingMayCloseTheFileThatIsLoaded)
{
    class CClosing : public CFile
    {
        long read(void*, size_t) override
        {
            close();
            return result;
        }

    public:
        long result = 0;
    };
    CLogCapture log;
    CClosing file;
    const CTemporaryFolder folder;
    setContent(folder.path("file"), "12345");
    for (const long result : {2, 5}) { // too few, and all of them
        file.result = result;
        EXPECT_EQ(file.load(folder.path("file").c_str()), nullptr);
    }
    EXPECT_EQ(log.takeLeveled(),
              "warn|this:" + pointer(&file) + " CFile::load() length:5, ret:2, errmsg:Success\n");
}

TEST(FileTest, ADeviceIsAskedWhereItStands)
{
    char block[100] = {};
    CFile file;
    ASSERT_TRUE(file.open("/dev/null", CFile::modeReadWrite));
    for (int i = 0; i < 200; ++i) {
        file.write(block, sizeof(block));
    }
    EXPECT_EQ(file.getPosition(), 3616U); // what is in the buffer: it begins again with each
}

TYPED_TEST(StreamTest, AStreamWritesSixteenKilobytesAtOnce)
{
    const std::string path = this->folder.path("file");
    ASSERT_TRUE(this->open(path, CFile::modeWrite));
    this->write(std::string(16383, 'x'));
    EXPECT_EQ(fs::file_size(path), 0U);
    this->write("yz");
    EXPECT_EQ(fs::file_size(path), 16384U);
    EXPECT_EQ(this->place(), "16385/16385");
    ASSERT_TRUE(this->file.setvbuf(nullptr, TypeParam::IOLBF, 4096)); // writes what is there
    this->file.puts("line\n");
    EXPECT_EQ(fs::file_size(path), 16390U);
}

TYPED_TEST(StreamTest, WhatAFileHasGrownByIsRead)
{
    const std::string path = this->folder.path("file");
    setContent(path, "one\n");
    ASSERT_TRUE(this->open(path, CFile::modeRead));
    EXPECT_EQ(this->read(64), "one\n");
    EXPECT_EQ(this->read(64), "");
    std::ofstream(path, std::ios::app) << "two\nthree\n";
    EXPECT_STREQ(this->file.gets(this->bytes, 64), "two\n");
    EXPECT_EQ(this->read(64), "three\n");
    EXPECT_EQ(this->place(), "14/4"); // the length is that of opening
}

TYPED_TEST(StreamTest, VectorsPassTheBufferBy)
{
    char first[] = "CD";
    char second[] = "EFG";
    const io_vec vector[] = {{first, 2}, {second, 3}};
    const std::string path = this->folder.path("file");
    ASSERT_TRUE(this->open(path, CFile::modeWrite));
    this->write("ab");
    EXPECT_EQ(this->file.writev(vector, 2), 5);
    EXPECT_EQ(this->place(), "7/7");
    EXPECT_EQ(contentOf(path), "CDEFG");
    this->write("h");
    EXPECT_EQ(this->place(), "8/8");
    EXPECT_EQ(this->file.writev(vector, -1), -1);
    this->file.close();
    EXPECT_EQ(contentOf(path), "CDEFGabh");

    CMemoryFileSystem memory("/memory", 1 << 20); // its handles are no streams of the system
    const CHook hook("/memory", memory);
    ASSERT_TRUE(this->open("/memory/file", CFile::modeWrite));
    this->log.clear();
    EXPECT_EQ(this->file.writev(vector, 2), 0);
    EXPECT_FALSE(this->file.setvbuf(nullptr, TypeParam::IONBF, 0));
    EXPECT_EQ(this->log.takeLeveled(), "warn|CFile::setvbuf failed\n");
    this->file.close();
}

TYPED_TEST(StreamTest, AFileThatIsShorterThanItSaysIsNotLoaded)
{
    CNotingFileSystem memory("/memory", 1 << 20);
    const CHook hook("/memory", memory);
    this->open("/memory/file", CFile::modeWrite);
    this->write("0123456789");
    memory.surplus = 2;
    memory.readError = 9999; // none of the system's
    this->log.clear();
    EXPECT_EQ(this->file.load("/memory/file"), nullptr);
    EXPECT_FALSE(this->file.isOpen());
    const std::string self = std::string("warn|this:") + pointer(&this->file);
    const bool is32 = std::is_same<TypeParam, CFile>::value;
    const std::string expected =
        is32 ? self + " CFile::load() length:12, ret:10, errmsg:Unknown error 9999\n"
             : self + " fread get error, total:12 has read:10, expected:2 return actuallen:0\n" +
                   self + " CLfsFile::load() length:12, ret:10, errmsg:Unknown error 9999\n";
    EXPECT_EQ(this->log.takeLeveled(), expected);
    memory.surplus = 0;
    this->open("/memory/file", CFile::modeWrite);
    EXPECT_EQ(this->file.load("/memory/file"), nullptr); // empty
    EXPECT_TRUE(this->file.isOpen());
    this->file.close();
}

TYPED_TEST(StreamTest, ADirectoryIsNoFile)
{
    ASSERT_TRUE(this->open(this->folder.path(), CFile::modeRead)); // as the system has it
    EXPECT_EQ(this->read(64), "");
    const TestSupport::ChildResult child = TestSupport::runInChild([this] {
        EXPECT_EQ(this->file.load(this->folder.path().c_str()), nullptr);
        EXPECT_TRUE(this->log.contains("errmsg:Is a directory\n")) << this->log.text();
    });
    EXPECT_TRUE(child.succeeded()) << child.report();
    EXPECT_NE(child.output.find(this->folder.path()), std::string::npos) << "where it leads to";
    EXPECT_FALSE(this->open(this->folder.path(), CFile::modeReadWrite));
}

TYPED_TEST(StreamTest, PathsThatNameNothingAreRefused)
{
    FileInfo info = {};
    info.size = 7;
    uint64_t numbers[3] = {1, 2, 3};
    const std::string longPaths[] = {"", std::string(255, 'x'), std::string(256, 'x'),
                                     std::string(4096, 'x'), std::string(255, 'y') + "/z"};
    std::vector<const char*> paths = {nullptr};
    for (const std::string& path : longPaths) {
        paths.push_back(path.c_str());
    }
    for (const char* path : paths) {
        SCOPED_TRACE(path == nullptr ? "null" : path);
        EXPECT_FALSE(this->file.open(path, CFile::modeRead));
        EXPECT_EQ(this->file.load(path), nullptr);
        EXPECT_FALSE(TypeParam::rename(path, "/tmp/x"));
        EXPECT_FALSE(TypeParam::remove(path));
        EXPECT_FALSE(TypeParam::removeDirectory(path));
        EXPECT_FALSE(TypeParam::access(path, F_OK));
        EXPECT_FALSE(TypeParam::stat(path, info));
        EXPECT_FALSE(TypeParam::statFS(path, numbers[0], numbers[1], numbers[2]));
        EXPECT_FALSE(CFile::removeDirectoryRecursively(path, true));
    }
    unended(this->log);
    EXPECT_FALSE(TypeParam::makeDirectory(nullptr));
    EXPECT_FALSE(TypeParam::rename("/tmp/x", nullptr));
    EXPECT_EQ(info.size, 7U);
    EXPECT_EQ(numbers[0] + numbers[1] + numbers[2], 0U);
}

TYPED_TEST(StreamTest, StaticOperationsTellWhatTheSystemDoes)
{
    const std::string path = this->folder.path("file %s\n");
    setContent(path, "12345");
    chmod(path.c_str(), 0640);
    const timespec times[] = {{1000, 0}, {2000, 0}};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
    FileInfo info = {};
    struct stat status = {};
    ASSERT_TRUE(TypeParam::stat(path.c_str(), info));
    ::stat(path.c_str(), &status);
    EXPECT_STREQ(info.name, path.c_str());
    EXPECT_EQ(info.attrib, 0100640);
    EXPECT_EQ(info.size, 5U);
    EXPECT_EQ(info.timeCreate, static_cast<uint64_t>(status.st_ctime));
    EXPECT_EQ(info.timeAccess, 1000U);
    EXPECT_EQ(info.timeWrite, 2000U);
    EXPECT_TRUE(TypeParam::access(path.c_str(), R_OK));
}

TEST(FileTest, TheSpaceOfAFileSystemIsThatOfTheSystem)
{
    // Free blocks may be taken meanwhile; those that are kept for root, and all, are as many.
    uint64_t user = 1;
    uint64_t total = 1;
    uint64_t free = 1;
    struct statfs status = {};
    ASSERT_EQ(::statfs("/", &status), 0);
    EXPECT_TRUE(CFile::statFS("/", user, total, free));
    const uint64_t blockSize = static_cast<uint64_t>(status.f_bsize);
    EXPECT_EQ(total, blockSize * status.f_blocks);
    EXPECT_EQ(free - user, blockSize * (status.f_bfree - status.f_bavail));
    EXPECT_NEAR(static_cast<double>(free), static_cast<double>(blockSize * status.f_bfree),
                static_cast<double>(total) / 10);
}

TEST(FileTest, TheUmaskDecidesWhoMayUseWhatIsMade)
{
    const CTemporaryFolder folder;
    const struct
    {
        mode_t mask;
        uint16_t file;
        uint16_t directory;
    } cases[] = {{0, 0100666, 0040777}, {027, 0100640, 0040750}};
    TestSupport::inChild([&] {
        for (const auto& one : cases) {
            const std::string path = folder.path(std::to_string(one.mask));
            umask(one.mask);
            CFile file;
            FileInfo info = {};
            ASSERT_TRUE(CFile::makeDirectory(path.c_str()) && CFile::stat(path.c_str(), info));
            EXPECT_EQ(info.attrib, one.directory);
            const std::string name = path + "/file";
            ASSERT_TRUE(file.open(name.c_str(), CFile::modeWrite));
            ASSERT_TRUE(CFile::stat(name.c_str(), info));
            EXPECT_EQ(info.attrib, one.file);
        }
    });
}

TEST(FileTest, AFullDiskAndAReadOnlyFileAreNamedInAMessage)
{
    CLogCapture log;
    CFile file;
    CLfsFile large;
    std::string block(20000, 'x');
    ASSERT_TRUE(file.open("/dev/full", CFile::modeWrite));
    EXPECT_LT(file.write(block.data(), block.size()), 20000);
    EXPECT_THAT(
        log.takeLeveled(),
        testing::MatchesRegex("warn.fwrite failed, expected:20000, actual:[0-9]+, errno:28, "
                              "errmsg:No space left on device\n"));
    ASSERT_TRUE(file.open("/dev/null", CFile::modeRead));
    EXPECT_EQ(file.write(block.data(), 3), 0);
    EXPECT_EQ(log.takeLeveled(),
              "warn|fwrite failed, expected:3, actual:0, errno:9, errmsg:Bad file "
              "descriptor\n");
    const std::string self = std::string("warn|this:") + pointer(&large);
    ASSERT_TRUE(large.open("/dev/full", CFile::modeWrite));
    EXPECT_LT(large.write(block.data(), 20000), 20000); // the rest would not follow what is lost
    EXPECT_THAT(unended(log), testing::MatchesRegex(self.substr(0, 4) +
                                                    ".this:.* fwrite get error, total:20000 has "
                                                    "write:0,expected:20000 return "
                                                    "actuallen:[0-9]+"));
    ASSERT_TRUE(large.open("/dev/null", CFile::modeRead));
    EXPECT_EQ(large.write(block.data(), 3), 0);
    EXPECT_EQ(unended(log),
              self + " fwrite get error, total:3 has write:0,expected:3 return actuallen:0");
    EXPECT_EQ(large.read(block.data(), 3), 0);
    EXPECT_EQ(large.read(block.data(), -3), 0);
    EXPECT_EQ(large.gets(block.data(), 1LL << 31), nullptr);
    log.take();
    EXPECT_EQ(large.read(block.data(), 0), 0);
    EXPECT_EQ(log.takeLeveled(), "");
}

TEST(FileTest, ALargeFileGoesPastFourGigabytes)
{
    constexpr int64_t far = (5LL << 30) + 7;
    char byte = 'x';
    const CTemporaryFolder folder;
    const std::string path = folder.path("sparse");
    CLfsFile large;
    ASSERT_TRUE(large.open(path.c_str(), CFile::modeReadWrite | CFile::modeCreate));
    EXPECT_EQ(large.seek(far, CLfsFile::begin), far);
    EXPECT_EQ(large.write(&byte, 1), 1);
    EXPECT_EQ(large.getLength(), far + 1);
    EXPECT_EQ(large.seek(-1, CLfsFile::end), far);
    byte = 0;
    EXPECT_EQ(large.read(&byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    large.close();

    CFile file; // tells half of it, and still finds the byte
    ASSERT_TRUE(file.open(path.c_str(), CFile::modeReadWrite));
    EXPECT_EQ(file.getLength(), (1U << 30) + 8);
    EXPECT_EQ(file.seek(far, CFile::begin), (1U << 30) + 7);
    EXPECT_EQ(file.read(&byte, 1), 1);
    EXPECT_EQ(file.seek(file.getPosition(), CFile::begin), (1U << 30) + 8); // no longer where it is
    byte = 'y';
    EXPECT_EQ(file.write(&byte, 1), 1);
    file.close();
    ASSERT_TRUE(large.open(path.c_str(), CFile::modeRead));
    EXPECT_EQ(large.seek((1LL << 30) + 8, CLfsFile::begin), (1LL << 30) + 8);
    byte = 0;
    EXPECT_EQ(large.read(&byte, 1), 1);
    EXPECT_EQ(byte, 'y');
    large.close();
    ASSERT_EQ(truncate(path.c_str(), 4LL << 30), 0);
    ASSERT_TRUE(file.open(path.c_str(), CFile::modeReadWrite));
    EXPECT_EQ(file.seek(4LL << 30, CFile::begin), 0U);
    EXPECT_EQ(file.getLength(), 0U); // asks, and goes back to where it was
    EXPECT_EQ(file.write(&byte, 1), 1);
    file.close();
    EXPECT_EQ(fs::file_size(path), (4ULL << 30) + 1);
    ASSERT_EQ(truncate(path.c_str(), 4LL << 30), 0);
    EXPECT_EQ(file.load(path.c_str()), nullptr); // a length of 0
}

/// The descriptor that leads to `path`.
int descriptorOf(const std::string& path)
{
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (fs::read_symlink(entry.path(), gone) == path) {
            return std::stoi(entry.path().filename());
        }
    }
    return -1;
}

TEST(FileTest, InheritanceAndTheCacheArePassedOnToTheSystem)
{
    const CTemporaryFolder folder;
    const std::string path = folder.path("file");
    CFile file;
    ASSERT_TRUE(file.open(path.c_str(), CFile::modeWrite | CFile::modeNoInherit));
    EXPECT_EQ(fcntl(descriptorOf(path), F_GETFD), FD_CLOEXEC);
    ASSERT_TRUE(file.open(path.c_str(), CFile::modeWrite));
    EXPECT_EQ(fcntl(descriptorOf(path), F_GETFD), 0);
    EXPECT_EQ(fcntl(descriptorOf(path), F_GETFL) & O_DIRECT, 0);
    file.close();
    CLfsFile large;
    ASSERT_TRUE(large.open(path.c_str(), CFile::modeWrite | CFile::osNoBuffer));
    EXPECT_EQ(fcntl(descriptorOf(path), F_GETFL) & O_DIRECT, 0);
    large.close();
    const int direct = ::open(path.c_str(), O_WRONLY | O_DIRECT);
    if (direct == -1) {
        GTEST_SKIP() << "no file of this file system passes the cache by";
    }
    close(direct);
    ASSERT_TRUE(file.open(path.c_str(), CFile::modeWrite | CFile::osNoBuffer));
    EXPECT_NE(fcntl(descriptorOf(path), F_GETFL) & O_DIRECT, 0);
}

TEST(FileTest, WhatIsBufferedAtTheProcesssEndIsWritten)
{
    const CTemporaryFolder folder;
    TestSupport::inChild([&folder] {
        static CFile destroyed;
        static CFile* const left = new CFile;
        char text[] = "text";
        destroyed.open(folder.path("destroyed").c_str(), CFile::modeWrite);
        left->open(folder.path("left").c_str(), CFile::modeWrite);
        destroyed.write(text, 4);
        left->write(text, 4);
    });
    EXPECT_EQ(contentOf(folder.path("destroyed")), "text");
    EXPECT_EQ(contentOf(folder.path("left")), "text");
}

} // namespace
} // namespace Infra
} // namespace Tarsel
