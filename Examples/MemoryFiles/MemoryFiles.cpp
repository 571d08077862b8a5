// MemoryFiles.cpp: a file system of one's own, below CFile and CFileFind.
//
//     CFile, CFileFind ── "/memory/..." ──> CMemoryFileSystem
//                      └─ everything else ──> the system
//
// A tree is made and filled in memory, listed, filled until the disk is full, and removed. Nothing
// of it is ever seen by the system. Ends with 0 if everything was as a disk would have it.

#include <cstdio>
#include <cstring>
#include <string>

#include <Infra/Infra3/File.h>
#include <Infra/Infra3/FileFind.h>

#include "MemoryFileSystem.h"

using Tarsel::Infra::CFile;
using Tarsel::Infra::CFileFind;

namespace
{

constexpr size_t capacity = 4096;

bool writeText(const char* path, const std::string& text)
{
    CFile file;
    return file.open(path, CFile::modeWrite) && file.puts(text.c_str()) >= 0;
}

/// Prints a tree, names alone, and returns its bytes.
size_t show(const std::string& directory, int depth)
{
    size_t bytes = 0;
    CFileFind finder;
    for (bool more = finder.findFile((directory + "/*").c_str()); more;
         more = finder.findNextFile()) {
        const std::string name = finder.getFileName();
        if (name == "." || name == "..") {
            continue;
        }
        std::printf("%*s%s%s\n", depth * 2, "", name.c_str(), finder.isDirectory() ? "/" : "");
        bytes += finder.isDirectory() ? show(finder.getFilePath(), depth + 1) : finder.getLength();
    }
    return bytes;
}

/// Writes until the disk is full. @return bytes that had room
long fill(const char* path)
{
    char block[1000];
    memset(block, 'x', sizeof(block));
    CFile file;
    long written = file.open(path, CFile::modeWrite) ? 0 : -1;
    for (long count = sizeof(block); written >= 0 && count == sizeof(block); written += count) {
        count = file.write(block, sizeof(block));
    }
    return written;
}

bool run()
{
    bool good = CFile::makeDirectoryRecursively("/memory/etc/service") &&
                writeText("/memory/etc/service/name", "infra\n") &&
                writeText("/memory/etc/motd", "hello from memory\n");
    const size_t bytes = show("/memory", 0);
    const long filled = fill("/memory/filler");
    std::printf("%zu bytes, and %ld more until the disk was full\n", bytes, filled);
    good = good && bytes == 24 && filled == static_cast<long>(capacity - 24);

    CFile file;
    const uint8_t* const text = file.load("/memory/etc/motd");
    good = good && text != nullptr && file.getLength() == 18 && memcmp(text, "hello", 5) == 0;
    file.unload();
    return CFile::removeDirectoryRecursively("/memory", false) && show("/memory", 0) == 0 && good;
}

} // namespace

int main()
{
    CMemoryFileSystem memory("/memory", capacity);
    Tarsel::Infra::hookFileSystem("/memory", &memory);
    const bool good = run() && memory.openHandles() == 0;
    Tarsel::Infra::hookFileSystem("/memory", nullptr);
    std::printf(good ? "MemoryFiles: done\n" : "MemoryFiles: FAILED\n");
    return good ? 0 : 1;
}
