// MemoryFileSystem.cpp: a map from paths to what they name.
//
// The entries of a directory are the paths that begin with its own and a '/', and have no other
// behind that; in a sorted map they stand together. A listing is a copy of them, so it can go on
// whatever is made or removed meanwhile.

#include "MemoryFileSystem.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

using Tarsel::Infra::CFile;

namespace
{

int failed(int error)
{
    errno = error;
    return -1;
}

std::string withoutSlashes(const char* path)
{
    std::string plain = path;
    while (plain.size() > 1 && plain.back() == '/') {
        plain.pop_back();
    }
    return plain;
}

std::string parentOf(const std::string& path)
{
    return path.substr(0, path.rfind('/'));
}

void copyName(Tarsel::Infra::FileInfo& info, const std::string& name)
{
    info.name[name.copy(info.name, sizeof(info.name) - 1)] = '\0';
}

uint64_t now()
{
    return static_cast<uint64_t>(time(nullptr));
}

} // namespace

struct CMemoryFileSystem::Node
{
    Node(bool directory, std::shared_ptr<size_t> usedBytes)
        : isDirectory(directory), used(std::move(usedBytes)), created(now()), written(created)
    {}
    ~Node() { *used -= bytes.size(); }

    void describe(FileInfo& info) const
    {
        info.attrib = isDirectory ? CFile::directory : CFile::normal;
        info.timeCreate = created;
        info.timeAccess = info.timeWrite = written;
        info.size = bytes.size();
    }

    const bool isDirectory;
    const std::shared_ptr<size_t> used;
    std::string bytes;
    uint64_t created;
    uint64_t written;
};

struct CMemoryFileSystem::Stream
{
    bool reads;
    bool writes;
    bool appends;
    std::shared_ptr<Node> node;
    size_t position;
};

struct CMemoryFileSystem::Search
{
    std::vector<FileInfo> entries;
    size_t next;
};

namespace
{

template <typename Stream>
Stream& streamOf(Tarsel::Infra::FileHandle file)
{
    return *static_cast<Stream*>(file);
}

} // namespace

CMemoryFileSystem::CMemoryFileSystem(const std::string& root, size_t capacity)
    : m_capacity(capacity), m_used(std::make_shared<size_t>(0))
{
    m_nodes[root] = std::make_shared<Node>(true, m_used);
}

CMemoryFileSystem::~CMemoryFileSystem() {}

int CMemoryFileSystem::openHandles() const
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_handles;
}

std::shared_ptr<CMemoryFileSystem::Node> CMemoryFileSystem::find(const std::string& path) const
{
    const auto found = m_nodes.find(path);
    return found == m_nodes.end() ? nullptr : found->second;
}

/// A new node in a directory that is there; null, with the reason in errno, if it is not.
std::shared_ptr<CMemoryFileSystem::Node> CMemoryFileSystem::make(const std::string& path,
                                                                 bool isDirectory)
{
    const std::shared_ptr<Node> parent = find(parentOf(path));
    if (parent == nullptr || !parent->isDirectory) {
        errno = parent == nullptr ? ENOENT : ENOTDIR;
        return nullptr;
    }
    return m_nodes[path] = std::make_shared<Node>(isDirectory, m_used);
}

bool CMemoryFileSystem::hasEntries(const std::string& directory) const
{
    const auto entry = m_nodes.lower_bound(directory + "/");
    return entry != m_nodes.end() &&
           entry->first.compare(0, directory.size() + 1, directory + "/") == 0;
}

/// Lets `node` grow from `begin` on, to `end` or as far as there is room; not at all when there is none
/// behind `begin`.
/// @return the bytes it has room for from `begin` on
size_t CMemoryFileSystem::reserve(Node& node, size_t begin, size_t end)
{
    const size_t size = node.bytes.size();
    const size_t room = std::min(end, size + m_capacity - *m_used);
    if (end > size && room > begin) {
        node.bytes.resize(room);
        *m_used += room - size;
    }
    return std::max(std::min(end, node.bytes.size()), begin) - begin;
}

CMemoryFileSystem::FileHandle CMemoryFileSystem::fopen(const char* path, const char* mode)
{
    const bool both = strchr(mode, '+') != nullptr;
    const char kind = mode[0];
    const std::lock_guard<std::mutex> guard(m_mutex);
    std::shared_ptr<Node> node = find(path);
    if (node == nullptr) {
        errno = ENOENT;
        node = kind == 'r' ? nullptr : make(path, false);
    }
    if (node == nullptr || node->isDirectory) {
        errno = node == nullptr ? errno : EISDIR;
        return nullptr;
    }
    if (kind == 'w') {
        *m_used -= node->bytes.size();
        node->bytes.clear();
    }
    ++m_handles;
    return new Stream{kind == 'r' || both, kind != 'r' || both, kind == 'a', node, 0};
}

int CMemoryFileSystem::fclose(FileHandle file)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    delete static_cast<Stream*>(file);
    --m_handles;
    return 0;
}

size_t CMemoryFileSystem::fread(void* buffer, size_t size, size_t n, FileHandle file)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    Stream& stream = streamOf<Stream>(file);
    const std::string& bytes = stream.node->bytes;
    if (!stream.reads || size == 0 || stream.position >= bytes.size()) {
        return 0;
    }
    const size_t count = std::min(n, (bytes.size() - stream.position) / size);
    bytes.copy(static_cast<char*>(buffer), count * size, stream.position);
    stream.position += count * size;
    return count;
}

size_t CMemoryFileSystem::fwrite(const void* buffer, size_t size, size_t n, FileHandle file)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    Stream& stream = streamOf<Stream>(file);
    Node& node = *stream.node;
    if (!stream.writes || size == 0) {
        errno = EBADF;
        return 0;
    }
    const size_t begin = stream.appends ? node.bytes.size() : stream.position;
    const size_t count = reserve(node, begin, begin + size * n) / size;
    if (count < n) {
        errno = ENOSPC;
    }
    if (count > 0) {
        node.bytes.replace(begin, count * size, static_cast<const char*>(buffer), count * size);
    }
    node.written = now();
    stream.position = begin + count * size;
    return count;
}

int CMemoryFileSystem::fflush(FileHandle)
{
    return 0;
}

int CMemoryFileSystem::fseek(FileHandle file, long offset, int whence)
{
    return fseek64(file, offset, whence);
}

long CMemoryFileSystem::ftell(FileHandle file)
{
    return ftell64(file);
}

int CMemoryFileSystem::fseek64(FileHandle file, int64_t offset, int whence)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    Stream& stream = streamOf<Stream>(file);
    const size_t bases[] = {0, stream.position, stream.node->bytes.size()};
    if (whence < SEEK_SET || whence > SEEK_END) {
        return failed(EINVAL);
    }
    int64_t target = 0;
    if (__builtin_add_overflow(static_cast<int64_t>(bases[whence]), offset, &target)) {
        return failed(EOVERFLOW);
    }
    if (target < 0) {
        return failed(EINVAL);
    }
    stream.position = static_cast<size_t>(target);
    return 0;
}

int64_t CMemoryFileSystem::ftell64(FileHandle file)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return static_cast<int64_t>(streamOf<Stream>(file).position);
}

char* CMemoryFileSystem::fgets(char* text, int size, FileHandle file)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    Stream& stream = streamOf<Stream>(file);
    const std::string& bytes = stream.node->bytes;
    if (!stream.reads || size < 2 || stream.position >= bytes.size()) {
        return nullptr;
    }
    const size_t lineEnd = std::min(bytes.find('\n', stream.position), bytes.size() - 1) + 1;
    const size_t count = std::min(lineEnd - stream.position, static_cast<size_t>(size) - 1);
    text[bytes.copy(text, count, stream.position)] = '\0';
    stream.position += count;
    return text;
}

int CMemoryFileSystem::fputs(const char* text, FileHandle file)
{
    const size_t length = strlen(text);
    return fwrite(text, 1, length, file) == length ? 0 : -1;
}

/// The reason for which `from` cannot become `to`; 0 when it can.
int CMemoryFileSystem::obstacle(const std::string& from, const std::string& to) const
{
    const std::shared_ptr<Node> source = find(from);
    const std::shared_ptr<Node> parent = find(parentOf(to));
    const std::shared_ptr<Node> target = find(to);
    if (source == nullptr || parent == nullptr) {
        return ENOENT;
    }
    if (from == to) {
        return 0;
    }
    if (!parent->isDirectory) {
        return ENOTDIR;
    }
    if (to.compare(0, from.size() + 1, from + "/") == 0) {
        return EINVAL; // into itself
    }
    if (target != nullptr && target->isDirectory != source->isDirectory) {
        return target->isDirectory ? EISDIR : ENOTDIR;
    }
    return target != nullptr && hasEntries(to) ? ENOTEMPTY : 0;
}

/// A directory takes along what is in it.
int CMemoryFileSystem::rename(const char* oldPath, const char* newPath)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    const std::string from = withoutSlashes(oldPath);
    const std::string to = withoutSlashes(newPath);
    const int error = obstacle(from, to);
    if (error != 0) {
        return failed(error);
    }
    Nodes moved;
    for (auto entry = m_nodes.lower_bound(from); entry != m_nodes.end();) {
        const std::string& path = entry->first;
        if (path.compare(0, from.size(), from) != 0) {
            break;
        }
        const bool belongs = path.size() == from.size() || path[from.size()] == '/';
        if (belongs) {
            moved[to + path.substr(from.size())] = entry->second;
        }
        entry = belongs ? m_nodes.erase(entry) : std::next(entry);
    }
    for (const auto& entry : moved) {
        m_nodes[entry.first] = entry.second;
    }
    return 0;
}

int CMemoryFileSystem::forget(const char* path, bool isDirectory)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    const std::string plain = withoutSlashes(path);
    const std::shared_ptr<Node> node = find(plain);
    if (node == nullptr) {
        return failed(ENOENT);
    }
    if (node->isDirectory != isDirectory) {
        return failed(isDirectory ? ENOTDIR : EISDIR);
    }
    if (isDirectory && hasEntries(plain)) {
        return failed(ENOTEMPTY);
    }
    m_nodes.erase(plain);
    return 0;
}

int CMemoryFileSystem::remove(const char* path)
{
    return forget(path, false);
}

int CMemoryFileSystem::rmdir(const char* path)
{
    return forget(path, true);
}

int CMemoryFileSystem::mkdir(const char* path)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    const std::string plain = withoutSlashes(path);
    if (find(plain) != nullptr) {
        return failed(EEXIST);
    }
    return make(plain, true) == nullptr ? -1 : 0;
}

long CMemoryFileSystem::findfirst(const char* pattern, FileInfo& info)
{
    std::string directory = pattern;
    if (!directory.empty() && directory.back() == '*') {
        directory.pop_back();
    }
    directory = withoutSlashes(directory.c_str());
    std::unique_ptr<Search> search(new Search{{}, 0});
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        const std::shared_ptr<Node> node = find(directory);
        if (node == nullptr || !node->isDirectory) {
            return failed(ENOENT);
        }
        FileInfo entry = {};
        for (const char* name : {".", ".."}) {
            copyName(entry, name);
            node->describe(entry);
            search->entries.push_back(entry);
        }
        const std::string begin = directory + "/";
        for (auto at = m_nodes.lower_bound(begin);
             at != m_nodes.end() && at->first.compare(0, begin.size(), begin) == 0; ++at) {
            const std::string name = at->first.substr(begin.size());
            if (name.find('/') == std::string::npos) {
                copyName(entry, name);
                at->second->describe(entry);
                search->entries.push_back(entry);
            }
        }
        ++m_handles;
    }
    const long handle = reinterpret_cast<long>(search.release());
    findnext(handle, info);
    return handle;
}

int CMemoryFileSystem::findnext(long handle, FileInfo& info)
{
    Search& search = *reinterpret_cast<Search*>(handle); // NOLINT(performance-no-int-to-ptr)
    if (search.next == search.entries.size()) {
        return -1;
    }
    info = search.entries[search.next++];
    return 0;
}

int CMemoryFileSystem::findclose(long handle)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    delete reinterpret_cast<Search*>(handle); // NOLINT(performance-no-int-to-ptr)
    --m_handles;
    return 0;
}

int CMemoryFileSystem::statfs(const char*, uint64_t& userFreeBytes, uint64_t& totalBytes,
                              uint64_t& totalFreeBytes)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    totalBytes = m_capacity;
    userFreeBytes = totalFreeBytes = m_capacity - *m_used;
    return 0;
}

int CMemoryFileSystem::access(const char* path, int)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return find(withoutSlashes(path)) == nullptr ? failed(ENOENT) : 0;
}

int CMemoryFileSystem::stat(const char* path, FileInfo& info)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    const std::shared_ptr<Node> node = find(withoutSlashes(path));
    if (node == nullptr) {
        return failed(ENOENT);
    }
    copyName(info, path);
    node->describe(info);
    return 0;
}
