// FileDirectory.cpp: whole paths of directories, made and removed.
//
// Removing is done in two ways. On the system's own files the tree is walked by descriptors: links
// are never followed, nothing is looked up by a path that somebody else may change meanwhile, any
// name and any depth will do, and memory is one name for each directory that is still to be
// visited. Where a hook may have part of the tree there are only paths, and a finder lists them.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "Infra/Infra3/File.h"
#include "Infra/Infra3/FileFind.h"
#include "Infra3/FileInternal.h"
#include "Infra3/LogFront.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

constexpr size_t longestPattern = 1023;

/// Owns the descriptor of an open directory.
class CDirectory
{
public:
    explicit CDirectory(int descriptor) : m_descriptor(descriptor) {}
    ~CDirectory() { close(); }
    CDirectory(const CDirectory&) = delete;
    CDirectory& operator=(const CDirectory&) = delete;

    bool isOpen() const { return m_descriptor != -1; }
    int descriptor() const { return m_descriptor; }

    /// Goes to an entry of this directory, which is not followed if it is a link; stays here when
    /// that cannot be opened.
    bool enter(const char* name)
    {
        const int entered = openat(m_descriptor, name, flags | O_NOFOLLOW);
        if (entered == -1) {
            return false;
        }
        close();
        m_descriptor = entered;
        return true;
    }

    static constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

private:
    void close()
    {
        if (m_descriptor != -1) {
            ::close(m_descriptor);
        }
    }

    int m_descriptor;
};

bool isDotOrDots(const char* name)
{
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

/// The names of all entries but "." and "..".
std::vector<std::string> entriesOf(int directory)
{
    std::vector<std::string> names;
    // The stream takes the descriptor it is given along when it is closed.
    const int copy = openat(directory, ".", CDirectory::flags);
    DIR* const stream = copy == -1 ? nullptr : fdopendir(copy);
    if (stream == nullptr) {
        if (copy != -1) {
            close(copy);
        }
        return names;
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread at a time
    while (const dirent* entry = readdir(stream)) {
        if (!isDotOrDots(entry->d_name)) {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(stream);
    return names;
}

/// Empties one directory of the system, however deep it goes.
class CTreeRemoval
{
public:
    explicit CTreeRemoval(int descriptor) : m_directory(descriptor) {}

    bool isOpen() const { return m_directory.isOpen(); }

    void empty()
    {
        m_levels.push_back(clearedLevel());
        while (!m_levels.empty()) {
            if (!m_levels.back().pending.empty()) {
                visitNext();
            } else if (!leave()) {
                return;
            }
        }
    }

private:
    struct Level
    {
        dev_t device;
        ino_t inode;
        std::vector<std::string> pending; ///< directories in it; the last one is visited next
    };

    /// The directory that is open, freed from what is no directory.
    Level clearedLevel() const
    {
        struct stat status = {};
        fstat(m_directory.descriptor(), &status);
        Level level = {status.st_dev, status.st_ino, {}};
        for (std::string& name : entriesOf(m_directory.descriptor())) {
            const bool gone = unlinkat(m_directory.descriptor(), name.c_str(), 0) == 0;
            if (!gone && errno == EISDIR) {
                level.pending.push_back(std::move(name));
            }
        }
        return level;
    }

    void visitNext()
    {
        if (m_directory.enter(m_levels.back().pending.back().c_str())) {
            m_levels.push_back(clearedLevel());
        } else {
            removeVisited();
        }
    }

    /// Goes up and removes the directory that was emptied. False when it is not where it was: then
    /// going on would remove somebody else's files.
    bool leave()
    {
        m_levels.pop_back();
        if (m_levels.empty()) {
            return true;
        }
        struct stat status = {};
        if (!m_directory.enter("..") || fstat(m_directory.descriptor(), &status) != 0 ||
            status.st_dev != m_levels.back().device || status.st_ino != m_levels.back().inode) {
            return false;
        }
        removeVisited();
        return true;
    }

    /// A directory that is not empty, or not ours to remove, stays.
    void removeVisited()
    {
        Level& level = m_levels.back();
        unlinkat(m_directory.descriptor(), level.pending.back().c_str(), AT_REMOVEDIR);
        level.pending.pop_back();
    }

    CDirectory m_directory;
    std::vector<Level> m_levels; ///< from the root to the open directory
};

bool sayMissing()
{
    INFRA_LOG_WARN("the path does not exist");
    return false;
}

bool isLink(const char* path)
{
    struct stat status;
    return lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
}

bool isSystems(const char* path)
{
    return &fileSystemFor(path) == FileDefaultOpt::instance();
}

bool removeOnSystem(const char* path, const std::string& directory, bool removesOriginal)
{
    if (removesOriginal && isLink(path)) {
        return CFile::remove(path);
    }
    const bool follows = path[strlen(path) - 1] == '/' || directory.size() < strlen(path);
    CTreeRemoval removal(
        open(follows ? directory.c_str() : path, CDirectory::flags | (follows ? 0 : O_NOFOLLOW)));
    if (!removal.isOpen()) {
        return sayMissing();
    }
    removal.empty();
    return !removesOriginal || CFile::removeDirectory(directory.c_str());
}

/// Removes the current entry, by paths.
void removeEntry(CFileFind& finder)
{
    const std::string path = finder.getFilePath();
    const bool isTree = finder.isDirectory() && !(isSystems(path.c_str()) && isLink(path.c_str()));
    if (isTree) {
        CFile::removeDirectoryRecursively(path.c_str(), true);
    } else {
        CFile::remove(path.c_str());
    }
}

bool removeByPaths(const std::string& directory, bool removesOriginal)
{
    CFileFind finder;
    if (!finder.findFile((directory + "*").c_str())) {
        return sayMissing();
    }
    do {
        if (!isDotOrDots(finder.getFileName().c_str())) {
            removeEntry(finder);
        }
    } while (finder.findNextFile());
    finder.close();
    return !removesOriginal || CFile::removeDirectory(directory.c_str());
}

bool isGiven(const char* path)
{
    const bool given = path != nullptr && *path != '\0';
    if (!given) {
        INFRA_LOG_WARN("the path is unvalid");
    }
    return given;
}

/// `path` as a directory, with one '/' behind it.
std::string directoryNamed(const char* path)
{
    std::string directory = path;
    const size_t length = directory.size();
    if (length >= 2 && directory.compare(length - 2, 2, "/*") == 0) {
        directory.pop_back();
    } else if (directory.back() != '/') {
        directory += '/';
    }
    return directory;
}

} // namespace

bool CFile::makeDirectoryRecursively(const char* dirPath)
{
    if (!isGiven(dirPath)) {
        return false;
    }
    std::string path = dirPath;
    if (path.back() == '/') {
        path.pop_back();
    }
    for (size_t slash = path.find('/'); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        if (slash > 0) {
            makeDirectory(path.substr(0, slash).c_str());
        }
    }
    return makeDirectory(path.c_str());
}

bool CFile::removeDirectoryRecursively(const char* dirPath, bool rmOriginalDir)
{
    if (!isGiven(dirPath)) {
        return false;
    }
    const std::string directory = directoryNamed(dirPath);
    if (directory.size() + 1 > longestPattern) {
        return sayMissing();
    }
    if (isSystems(dirPath) && !isHookedBelow(directory.c_str())) {
        return removeOnSystem(dirPath, directory, rmOriginalDir);
    }
    return removeByPaths(directory, rmOriginalDir);
}

} // namespace Infra
} // namespace Tarsel
