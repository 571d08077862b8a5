#ifndef INFRA_INFRA3_FILEFIND_H
#define INFRA_INFRA3_FILEFIND_H

#include <cstddef>
#include <string>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/String.h"

namespace Tarsel
{
namespace Infra
{

struct FileFindInternal;

/// Lists the entries of a directory one by one, through the file system of its path.
///
/// Behaviour: entries come as the directory yields them, unsorted, "." and ".." among them; nothing
/// is matched. Before the first findFile() the current entry is empty; after close() it stays. At the
/// end of a listing its size and attributes are still the last one's, but its name is what names are
/// put behind ("dir/"). A link counts as what it points to. An entry whose status
/// cannot be had, such as a link to nothing, ends the listing with an error line, and one whose name
/// has more than 236 bytes is left out, as is one that was removed meanwhile; so it is on the system's
/// own directories.
/// Threads: one thread at a time; separate finders are independent.
///
///     CFileFind finder;
///     for (bool more = finder.findFile("/var/log/*"); more; more = finder.findNextFile()) {
///         printf("%s %zu\n", finder.getFilePath().c_str(), finder.getLength());
///     }
class INFRA_API CFileFind
{
public:
    CFileFind();
    /// Ends the listing.
    virtual ~CFileFind();

    /// Starts a listing, after ending the one under way, and makes its first entry current.
    /// @param fileName  a directory, with or without '/' or "/*" behind it; "" and "*" are the
    ///                  current one
    /// @return false when nothing can be listed, for null and for more than 1023 characters too
    virtual bool findFile(const char* fileName);
    /// Makes the next entry current; false when there is none, or no listing.
    virtual bool findNextFile();
    /// Ends the listing.
    virtual void close();
    /// Bytes.
    virtual size_t getLength();
    virtual std::string getFileName();
    /// The name behind everything up to the last '/' of what findFile() was given. So "dir/" and
    /// "dir/*" give paths that can be opened, and "dir" does if there is no '/' in it.
    virtual std::string getFilePath();
    /// The owner may not write.
    virtual bool isReadOnly();
    virtual bool isDirectory();
    /// Never of the system's files, whatever their names begin with.
    virtual bool isHidden();
    /// True for what has no attribute: files that the owner may write.
    virtual bool isNormal();

private:
    CFileFind(const CFileFind&);
    CFileFind& operator=(const CFileFind&);

    FileFindInternal* m_internal;
};

/// CFileFind with the library's own strings and nothing virtual.
class INFRA_API CFileFindEx
{
public:
    CFileFindEx();
    ~CFileFindEx();

    bool findFile(const char* fileName);
    bool findNextFile();
    void close();
    size_t getLength();
    CString getFileName();
    CString getFilePath();
    bool isReadOnly();
    bool isDirectory();
    bool isHidden();
    bool isNormal();

private:
    CFileFindEx(const CFileFindEx&);
    CFileFindEx& operator=(const CFileFindEx&);

    FileFindInternal* m_internal;
};

} // namespace Infra
} // namespace Tarsel

#endif
