#ifndef INFRA_SRC_INFRA3_FILEFINDIMPL_H
#define INFRA_SRC_INFRA3_FILEFINDIMPL_H

#include <cstdint>
#include <cstring>

#include "Infra/Infra3/File.h"
#include "Infra/Infra3/String.h"
#include "Infra3/FileInternal.h"

namespace Tarsel
{
namespace Infra
{

/// One listing: what both finders are, and what looks for old log files.
class CFileFindImpl
{
public:
    CFileFindImpl() = default;
    ~CFileFindImpl() { close(); }
    CFileFindImpl(const CFileFindImpl&) = delete;
    CFileFindImpl& operator=(const CFileFindImpl&) = delete;

    /// Lists through the file system of the pattern; false for null too.
    bool findFile(const char* pattern);
    /// Lists through a file system that has been chosen.
    bool findFile(const char* pattern, IFileSystem& fileSystem);
    bool findNextFile();
    void close();

    const FileInfo& entry() const { return m_fileInfo; }
    bool has(int attribute) const { return (m_fileInfo.attrib & attribute) != 0; }

    template <typename Text>
    Text path() const
    {
        const size_t nameLength = strlen(m_fileInfo.name);
        Text whole;
        whole.reserve(m_path.size() + nameLength);
        whole.append(m_path.c_str(), m_path.size());
        whole.append(m_fileInfo.name, nameLength);
        return whole;
    }

private:
    static constexpr int64_t noSearch = -1;

    int64_t m_handle = noSearch;
    FileInfo m_fileInfo = {};
    IFileSystem* m_opt = FileDefaultOpt::instance();
    CString m_path;
};

} // namespace Infra
} // namespace Tarsel

#endif
