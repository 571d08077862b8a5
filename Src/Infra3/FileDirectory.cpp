// FileDirectory.cpp: whole paths of directories, made and removed.
//
// Removing is done in two ways. On the system's own files the tree is walked by descriptors: links
// are never followed, nothing is looked up by a path that somebody else may change meanwhile, and any
// name and any depth will do. In memory are the names of the directory that is being cleared, and of
// those above it the directories in them that are still to be visited. Where a hook may have part of
// the tree there are only paths, and a finder lists them.
//
// Both pass over what cannot be removed, and warn of a directory that cannot be listed, which stays.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
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
    ~CDirectory()
    {
        if (isOpen()) {
            close(m_descriptor);
        }
    }
    CDirectory(const CDirectory&) = delete;
    CDirectory& operator=(const CDirectory&) = delete;
    CDirectory(CDirectory&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    CDirectory& operator=(CDirectory&& other) noexcept
    {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }

    bool isOpen() const { return m_descriptor != -1; }
    int descriptor() const { return m_descriptor; }

    /// An entry of this directory, which is not followed if it is a link.
    CDirectory open(const char* name) const
    {
        return CDirectory(openat(m_descriptor, name, flags | O_NOFOLLOW));
    }

    static constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

private:
    int m_descriptor;
};

bool isDotOrDots(const char* name)
{
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

/// The names of all entries but "." and "..", once in the life of a descriptor; nothing when it
/// cannot be listed.
std::optional<std::vector<std::string>> entriesOf(int directory)
{
    // The stream takes the descriptor it is given along when it is closed.
    const int copy = fcntl(directory, F_DUPFD_CLOEXEC, 0);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(copy == -1 ? nullptr : fdopendir(copy),
                                                     closedir);
    if (stream == nullptr) {
        if (copy != -1) {
            close(copy);
        }
        return std::nullopt;
    }
    std::vector<std::string> names;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread at a time
    while (const dirent* entry = readdir(stream.get())) {
        if (!isDotOrDots(entry->d_name)) {
            names.emplace_back(entry->d_name);
        }
    }
    return names;
}

bool isDirectoryIn(int directory, const char* name)
{
    struct stat status;
    return fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
}

bool sayMissing()
{
    INFRA_LOG_WARN("the path does not exist");
    return false;
}

/// Empties one directory of the system, however deep it goes.
class CTreeRemoval
{
public:
    /// False when the directory cannot be listed.
    bool empty(CDirectory directory)
    {
        if (!enter(std::move(directory))) {
            return sayMissing();
        }
        while (!m_levels.empty()) {
            if (!m_levels.back().pending.empty()) {
                visitNext();
            } else if (!leave()) {
                break;
            }
        }
        return true;
    }

private:
    struct Level
    {
        dev_t device;
        ino_t inode;
        std::vector<std::string> pending; ///< directories in it; the last one is visited next
    };

    /// Makes a directory the open one and frees it from what is no directory. Stays where it is when
    /// that one cannot be listed, which takes the right to look at its entries too.
    bool enter(CDirectory directory)
    {
        const int descriptor = directory.descriptor();
        struct stat status = {};
        if (!directory.isOpen() || fstatat(descriptor, ".", &status, 0) != 0) {
            return false;
        }
        std::optional<std::vector<std::string>> names = entriesOf(descriptor);
        if (!names) {
            return false;
        }
        Level level = {status.st_dev, status.st_ino, {}};
        for (std::string& name : *names) {
            if (isDirectoryAfterRemoval(descriptor, name.c_str())) {
                level.pending.push_back(std::move(name));
            }
        }
        m_directory = std::move(directory);
        m_levels.push_back(std::move(level));
        return true;
    }

    /// Removes what is no directory. The system may refuse for the sake of the directory around it
    /// before it looks what the entry is.
    static bool isDirectoryAfterRemoval(int directory, const char* name)
    {
        return unlinkat(directory, name, 0) != 0 &&
               (errno == EISDIR || isDirectoryIn(directory, name));
    }

    void visitNext()
    {
        if (!enter(m_directory.open(m_levels.back().pending.back().c_str()))) {
            sayMissing();
            m_levels.back().pending.pop_back();
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
        m_directory = m_directory.open("..");
        if (!m_directory.isOpen() || fstat(m_directory.descriptor(), &status) != 0 ||
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

    CDirectory m_directory = CDirectory(-1);
    std::vector<Level> m_levels; ///< from the root to the open directory
};

bool isSystems(const std::string& path)
{
    return &fileSystemFor(path.c_str()) == FileDefaultOpt::instance();
}

/// True for a link to a directory of the system.
bool isLinkToDirectory(const char* path)
{
    struct stat status;
    return isSystems(path) && lstat(path, &status) == 0 && S_ISLNK(status.st_mode) &&
           stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

/// Whether a directory that is a link is emptied, or counts as none.
enum class Links
{
    followed,
    refused
};

bool removeOnSystem(std::string directory, bool removesOriginal, Links links)
{
    int flags = CDirectory::flags;
    if (links == Links::refused) {
        directory.pop_back(); // the '/' would follow one
        flags |= O_NOFOLLOW;
    }
    if (!CTreeRemoval().empty(CDirectory(open(directory.c_str(), flags)))) {
        return false;
    }
    return !removesOriginal || CFile::removeDirectory(directory.c_str());
}

bool removeTree(const std::string& directory, bool removesOriginal, Links links);

/// Removes the current entry, by paths.
void removeEntry(CFileFind& finder)
{
    const std::string path = finder.getFilePath();
    if (finder.isDirectory() && !isLinkToDirectory(path.c_str())) {
        removeTree(path + "/", true, Links::refused);
    } else {
        CFile::remove(path.c_str());
    }
}

/// A file system of the application may list anything; only what is below the directory goes.
bool isNameWithin(const char* name)
{
    return *name != '\0' && !isDotOrDots(name) && strchr(name, '/') == nullptr;
}

bool removeByPaths(const std::string& directory, bool removesOriginal)
{
    CFileFind finder;
    if (!finder.findFile((directory + "*").c_str())) {
        return sayMissing();
    }
    do {
        if (isNameWithin(finder.getFileName().c_str())) {
            removeEntry(finder);
        }
    } while (finder.findNextFile());
    finder.close();
    return !removesOriginal || CFile::removeDirectory(directory.c_str());
}

/// `directory` ends in '/'.
bool removeTree(const std::string& directory, bool removesOriginal, Links links)
{
    if (directory.size() + 1 > longestPattern) {
        return sayMissing();
    }
    if (isSystems(directory) && !isHookedBelow(directory.c_str())) {
        return removeOnSystem(directory, removesOriginal, links);
    }
    return removeByPaths(directory, removesOriginal);
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
    const bool namesEntry = directory.size() > strlen(dirPath); // neither "/" nor "/*" behind it
    if (!rmOriginalDir || !namesEntry) {
        return removeTree(directory, rmOriginalDir, Links::followed);
    }
    if (isSystems(directory) && isLinkToDirectory(dirPath)) {
        return remove(dirPath);
    }
    return removeTree(directory, rmOriginalDir, Links::refused);
}

} // namespace Infra
} // namespace Tarsel
