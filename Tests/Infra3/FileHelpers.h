#ifndef INFRA_TESTS_INFRA3_FILEHELPERS_H
#define INFRA_TESTS_INFRA3_FILEHELPERS_H

// What the tests of files, hooks and directories have in common.

#include <cerrno>
#include <cstdio>
#include <string>

#include "Examples/MemoryFiles/MemoryFileSystem.h"
#include "Infra/Infra3/File.h"
#include "Infra/Infra3/PrintLog.h"
#include "Support/LogCapture.h"

namespace Tarsel
{
namespace Infra
{

inline constexpr const char* announcement =
    "info|hookFileSystem called!, CFile/CLfsFile member function may be hooked!\n";

inline std::string pointer(const void* object)
{
    char text[32];
    snprintf(text, sizeof(text), "%p", object);
    return text;
}

/// What was logged, the last message of which has no line end; the next one begins a line again.
inline std::string unended(TestSupport::CLogCapture& log)
{
    const std::string text = log.takeLeveled();
    logWarn("\n");
    log.clear();
    return text;
}

/// Hooks a file system for as long as it lives.
class CHook
{
public:
    CHook(const std::string& prefix, IFileSystem& fileSystem) : m_prefix(prefix)
    {
        hookFileSystem(m_prefix.c_str(), &fileSystem);
    }
    ~CHook() { hookFileSystem(m_prefix.c_str(), nullptr); }

private:
    const std::string m_prefix;
};

/// Notes the calls that are made.
class CNotingFileSystem : public CMemoryFileSystem
{
public:
    using CMemoryFileSystem::CMemoryFileSystem;

    FileHandle fopen(const char* path, const char* mode) override
    {
        calls += std::string("fopen(") + mode + ") ";
        return CMemoryFileSystem::fopen(path, mode);
    }
    size_t fread(void* buffer, size_t size, size_t n, FileHandle file) override
    {
        errno = readError;
        return CMemoryFileSystem::fread(buffer, size, n, file);
    }
    size_t fwrite(const void* buffer, size_t size, size_t n, FileHandle file) override
    {
        calls += "fwrite ";
        return CMemoryFileSystem::fwrite(buffer, size, n, file);
    }
    int fseek(FileHandle file, long offset, int whence) override
    {
        calls += "fseek ";
        return CMemoryFileSystem::fseek(file, offset, whence);
    }
    long ftell(FileHandle file) override
    {
        calls += "ftell ";
        return CMemoryFileSystem::ftell(file);
    }
    int stat(const char* path, FileInfo& info) override
    {
        calls += "stat ";
        const int result = CMemoryFileSystem::stat(path, info);
        info.size += surplus;
        return result;
    }

    std::string calls;
    uint64_t surplus = 0; ///< what stat() says too much
    int readError = 0;
};
} // namespace Infra
} // namespace Tarsel

#endif
