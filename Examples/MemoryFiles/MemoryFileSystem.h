#ifndef INFRA_EXAMPLES_MEMORYFILES_MEMORYFILESYSTEM_H
#define INFRA_EXAMPLES_MEMORYFILES_MEMORYFILESYSTEM_H

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <Infra/Infra3/File.h>

/// Files and directories that live in memory, up to a number of bytes, under one directory that is
/// there from the start.
///
/// Behaviour: as on a disk. A full one takes as much of a write as there is room for, and says
/// ENOSPC. A file that is removed stays for those who have it open.
/// Threads: safe from any thread, each stream and listing on one at a time.
///
///     CMemoryFileSystem memory("/memory", 1 << 20);
///     Tarsel::Infra::hookFileSystem("/memory", &memory);
class CMemoryFileSystem : public Tarsel::Infra::IFileSystem
{
public:
    typedef Tarsel::Infra::FileHandle FileHandle;
    typedef Tarsel::Infra::FileInfo FileInfo;

    CMemoryFileSystem(const std::string& root, size_t capacity);
    ~CMemoryFileSystem() override;

    FileHandle fopen(const char* path, const char* mode) override;
    int fclose(FileHandle file) override;
    size_t fread(void* buffer, size_t size, size_t n, FileHandle file) override;
    size_t fwrite(const void* buffer, size_t size, size_t n, FileHandle file) override;
    int fflush(FileHandle file) override;
    int fseek(FileHandle file, long offset, int whence) override;
    long ftell(FileHandle file) override;
    char* fgets(char* text, int size, FileHandle file) override;
    int fputs(const char* text, FileHandle file) override;
    int rename(const char* oldPath, const char* newPath) override;
    int remove(const char* path) override;
    long findfirst(const char* pattern, FileInfo& info) override;
    int findnext(long handle, FileInfo& info) override;
    int findclose(long handle) override;
    int mkdir(const char* path) override;
    int rmdir(const char* path) override;
    int statfs(const char* path, uint64_t& userFreeBytes, uint64_t& totalBytes,
               uint64_t& totalFreeBytes) override;
    int access(const char* path, int mode) override;
    int stat(const char* path, FileInfo& info) override;
    int fseek64(FileHandle file, int64_t offset, int whence) override;
    int64_t ftell64(FileHandle file) override;

    /// Streams and listings that are open.
    int openHandles() const;

private:
    struct Node;
    struct Stream;
    struct Search;
    typedef std::map<std::string, std::shared_ptr<Node>> Nodes; ///< by path, without '/' at the end

    std::shared_ptr<Node> find(const std::string& path) const;
    std::shared_ptr<Node> make(const std::string& path, bool isDirectory);
    bool hasEntries(const std::string& directory) const;
    size_t reserve(Node& node, size_t begin, size_t end);
    int obstacle(const std::string& from, const std::string& to) const;
    int forget(const char* path, bool isDirectory);

    mutable std::mutex m_mutex; ///< guards what follows, and all nodes
    Nodes m_nodes;
    const size_t m_capacity;
    std::shared_ptr<size_t> m_used; ///< bytes of all files; nodes may outlive this object
    int m_handles = 0;
};

#endif
