// Files beside the system's own calls and the standard library, on memory: no disk takes part.
//
// file_write/N, lfs_write/N  a record of N bytes written with CFile, CLfsFile; from the start again
//                            after every 8 MB
// file_read/N, lfs_read/N    a record of N bytes read from a file of 8 MB
//   stdio                    fwrite and fread with a buffer of 16 KB, the same size as ours
// file_load                  8 MB into memory, opening and closing included
//   read                     one call into a new buffer
// file_list                  one entry of 10,000 with size and time of change
//   readdir+fstatat          the two calls alone, std::filesystem its directory iterator
// file_stat/N, file_access/N  one file, with N hooks on other paths
//   system                   the bare call

#include "Infra/Infra3/File.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Benchmarks/Support/Cases.h"
#include "Infra/Infra3/FileFind.h"
#include "Infra/Infra3/PrintLog.h"

namespace
{

using Tarsel::Infra::CFile;
using Tarsel::Infra::CFileFind;
using Tarsel::Infra::CFileFindEx;
using Tarsel::Infra::CLfsFile;
using Tarsel::Infra::FileInfo;
using Tarsel::Infra::hookFileSystem;

constexpr size_t fileSize = 8 << 20;
constexpr int entryCount = 10000;
constexpr int hookCount = 31;

/// A folder in memory that is gone at the end.
class CFolder
{
public:
    CFolder() : m_path("/dev/shm/infra-bench-" + std::to_string(getpid()))
    {
        std::filesystem::create_directories(m_path + "/many");
        std::ofstream(file()) << std::string(fileSize, 'x');
        for (int i = 0; i < entryCount; ++i) {
            std::ofstream(m_path + "/many/entry-" + std::to_string(i)) << i;
        }
    }
    ~CFolder() { std::filesystem::remove_all(m_path); }

    std::string file() const { return m_path + "/file"; }
    std::string written() const { return m_path + "/written"; }
    std::string many() const { return m_path + "/many"; }

private:
    std::string m_path;
};

CFolder* s_folder;

template <typename File>
class CInfraStream
{
public:
    CInfraStream(const std::string& path, bool writes)
    {
        m_file.open(path.c_str(), writes ? File::modeWrite : File::modeRead);
    }
    bool write(char* bytes, size_t size)
    {
        return static_cast<size_t>(m_file.write(bytes, static_cast<long>(size))) == size;
    }
    bool read(char* bytes, size_t size)
    {
        return static_cast<size_t>(m_file.read(bytes, static_cast<long>(size))) == size;
    }
    void rewind() { m_file.seek(0, File::begin); }

private:
    File m_file;
};

class CStdio
{
public:
    CStdio(const std::string& path, bool writes)
        : m_buffer(16384), m_file(fopen(path.c_str(), writes ? "wb" : "rb"))
    {
        setvbuf(m_file, m_buffer.data(), _IOFBF, m_buffer.size());
    }
    ~CStdio() { fclose(m_file); }
    bool write(char* bytes, size_t size) { return fwrite(bytes, 1, size, m_file) == size; }
    bool read(char* bytes, size_t size) { return fread(bytes, 1, size, m_file) == size; }
    void rewind() { fseek(m_file, 0, SEEK_SET); }

private:
    std::vector<char> m_buffer;
    FILE* m_file;
};

class CStandardStream
{
public:
    CStandardStream(const std::string& path, bool writes)
        : m_file(path, std::ios::binary | (writes ? std::ios::out : std::ios::in))
    {}
    bool write(char* bytes, size_t size)
    {
        return m_file.write(bytes, static_cast<std::streamsize>(size)).good();
    }
    bool read(char* bytes, size_t size)
    {
        return m_file.read(bytes, static_cast<std::streamsize>(size)).good();
    }
    void rewind()
    {
        m_file.clear();
        m_file.seekg(0);
    }

private:
    std::fstream m_file;
};

/// Every `fileSize` bytes from the start again.
template <typename Stream>
void write(benchmark::State& state, size_t size)
{
    std::vector<char> record(size, 'r');
    Stream stream(s_folder->written(), true);
    size_t left = fileSize / size;
    for (auto _ : state) {
        benchmark::DoNotOptimize(stream.write(record.data(), size));
        if (--left == 0) {
            stream.rewind();
            left = fileSize / size;
        }
    }
}

template <typename Stream>
void read(benchmark::State& state, size_t size)
{
    std::vector<char> record(size);
    Stream stream(s_folder->file(), false);
    size_t left = fileSize / size;
    for (auto _ : state) {
        benchmark::DoNotOptimize(stream.read(record.data(), size));
        if (--left == 0) {
            stream.rewind();
            left = fileSize / size;
        }
    }
}

template <typename File>
void load(benchmark::State& state)
{
    File file;
    for (auto _ : state) {
        benchmark::DoNotOptimize(file.load(s_folder->file().c_str()));
        file.unload();
    }
}

void loadByHand(benchmark::State& state)
{
    for (auto _ : state) {
        const int file = open(s_folder->file().c_str(), O_RDONLY);
        std::unique_ptr<char[]> bytes(new char[fileSize]);
        benchmark::DoNotOptimize(::read(file, bytes.get(), fileSize));
        close(file);
    }
}

template <typename Finder>
size_t listed(const std::string& folder)
{
    Finder finder;
    size_t sum = 0;
    for (bool more = finder.findFile((folder + "/*").c_str()); more; more = finder.findNextFile()) {
        const auto name = finder.getFileName();
        benchmark::DoNotOptimize(name.data());
        sum += finder.getLength();
    }
    return sum;
}

size_t listedBySystem(const std::string& folder)
{
    DIR* const directory = opendir(folder.c_str());
    size_t sum = 0;
    while (const dirent* entry = readdir(directory)) {
        struct stat status;
        fstatat(dirfd(directory), entry->d_name, &status, 0);
        benchmark::DoNotOptimize(status.st_mtim);
        sum += static_cast<size_t>(status.st_size);
    }
    closedir(directory);
    return sum;
}

size_t listedByLibrary(const std::string& folder)
{
    size_t sum = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const auto name = entry.path().filename();
        benchmark::DoNotOptimize(name.c_str());
        benchmark::DoNotOptimize(entry.last_write_time());
        sum += entry.file_size();
    }
    return sum;
}

/// Time and rate are those of one entry.
void list(benchmark::State& state, size_t (*sumOf)(const std::string&))
{
    const std::string folder = s_folder->many();
    int64_t entries = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(sumOf(folder));
        entries += entryCount;
    }
    state.SetItemsProcessed(entries);
}

/// Never called: nobody uses a path below its prefix.
class CNeverUsed : public Tarsel::Infra::IFileSystem
{
public:
    Tarsel::Infra::FileHandle fopen(const char*, const char*) override { abort(); }
    int fclose(Tarsel::Infra::FileHandle) override { abort(); }
    size_t fread(void*, size_t, size_t, Tarsel::Infra::FileHandle) override { abort(); }
    size_t fwrite(const void*, size_t, size_t, Tarsel::Infra::FileHandle) override { abort(); }
    int fflush(Tarsel::Infra::FileHandle) override { abort(); }
    int fseek(Tarsel::Infra::FileHandle, long, int) override { abort(); }
    long ftell(Tarsel::Infra::FileHandle) override { abort(); }
    char* fgets(char*, int, Tarsel::Infra::FileHandle) override { abort(); }
    int fputs(const char*, Tarsel::Infra::FileHandle) override { abort(); }
    int rename(const char*, const char*) override { abort(); }
    int remove(const char*) override { abort(); }
    long findfirst(const char*, FileInfo&) override { abort(); }
    int findnext(long, FileInfo&) override { abort(); }
    int findclose(long) override { abort(); }
    int mkdir(const char*) override { abort(); }
    int rmdir(const char*) override { abort(); }
    int statfs(const char*, uint64_t&, uint64_t&, uint64_t&) override { abort(); }
    int access(const char*, int) override { abort(); }
    int stat(const char*, FileInfo&) override { abort(); }
};

/// `count` hooks on other folders of the same one, for the length of a measurement.
class CHooks
{
public:
    explicit CHooks(int count) : m_count(count) { set(&m_neverUsed); }
    ~CHooks() { set(nullptr); }

private:
    void set(CNeverUsed* fileSystem) const
    {
        for (int i = 0; i < m_count; ++i) {
            hookFileSystem(("/dev/shm/infra-hook-" + std::to_string(i) + "/").c_str(), fileSystem);
        }
    }

    static inline CNeverUsed m_neverUsed;
    const int m_count;
};

void statFile(benchmark::State& state, int hooks)
{
    const CHooks installed(hooks);
    const std::string path = s_folder->file();
    for (auto _ : state) {
        FileInfo info;
        benchmark::DoNotOptimize(CFile::stat(path.c_str(), info));
        benchmark::DoNotOptimize(info);
    }
}

void statBySystem(benchmark::State& state)
{
    const std::string path = s_folder->file();
    for (auto _ : state) {
        struct stat status;
        benchmark::DoNotOptimize(::stat(path.c_str(), &status));
        benchmark::DoNotOptimize(status);
    }
}

void accessFile(benchmark::State& state, int hooks)
{
    const CHooks installed(hooks);
    const std::string path = s_folder->file();
    for (auto _ : state) {
        benchmark::DoNotOptimize(CFile::access(path.c_str(), R_OK));
    }
}

void accessBySystem(benchmark::State& state)
{
    const std::string path = s_folder->file();
    for (auto _ : state) {
        benchmark::DoNotOptimize(::access(path.c_str(), R_OK));
    }
}

template <typename Stream>
void addStream(const std::string& prefix, const char* contender)
{
    for (const size_t size : {100, 4096}) {
        Bench::add(Bench::label(prefix + "_write", size), contender, write<Stream>, size);
        Bench::add(Bench::label(prefix + "_read", size), contender, read<Stream>, size);
    }
}

void addStreams()
{
    addStream<CInfraStream<CFile>>("file", Bench::infra);
    addStream<CInfraStream<CLfsFile>>("lfs", Bench::infra);
    for (const char* prefix : {"file", "lfs"}) {
        addStream<CStdio>(prefix, "stdio");
        addStream<CStandardStream>(prefix, "std::fstream");
    }
}

void addLists()
{
    Bench::add("file_list", Bench::infra, list, listed<CFileFind>);
    Bench::add("file_list", "CFileFindEx", list, listed<CFileFindEx>);
    Bench::add("file_list", "readdir+fstatat", list, listedBySystem);
    Bench::add("file_list", "std::filesystem", list, listedByLibrary);
}

} // namespace

int main(int argc, char** argv)
{
    Tarsel::Infra::setPrintLogLevel(Tarsel::Infra::logLevelError); // hooks announce themselves
    CFolder folder;
    s_folder = &folder;
    addStreams();
    addLists();
    Bench::add("file_load", Bench::infra, load<CFile>);
    Bench::add("file_load", "read", loadByHand);
    for (const int hooks : {0, hookCount}) {
        Bench::add(Bench::label("file_stat", hooks), Bench::infra, statFile, hooks);
        Bench::add(Bench::label("file_stat", hooks), "system", statBySystem);
        Bench::add(Bench::label("file_access", hooks), Bench::infra, accessFile, hooks);
        Bench::add(Bench::label("file_access", hooks), "system", accessBySystem);
    }
    return Bench::run(argc, argv, "stdio and std::fstream of the compiler's libraries, the system");
}
