// FileFind.cpp: listing a directory.
//
// Both finders are one CFileFindImpl; they differ in their string types only.

#include "Infra/Infra3/FileFind.h"

#include <cstring>

#include "Infra3/BoundedText.h"
#include "Infra3/FileFindImpl.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

/// What entries' names are put behind: the pattern up to its last '/'. One without any '/' is a
/// directory of the current one.
CString directoryPartOf(const char* pattern)
{
    const char* const slash = strrchr(pattern, '/');
    if (slash != nullptr) {
        return CString(pattern, static_cast<size_t>(slash - pattern) + 1);
    }
    size_t length = strlen(pattern);
    if (length > 0 && pattern[length - 1] == '*') {
        --length;
    }
    return length == 0 ? CString("./") : CString(pattern, length) + "/";
}

} // namespace

bool CFileFindImpl::findFile(const char* pattern)
{
    if (pattern == nullptr) {
        close();
        return false;
    }
    return findFile(pattern, fileSystemFor(pattern));
}

bool CFileFindImpl::findFile(const char* pattern, IFileSystem& fileSystem)
{
    close();
    m_path = directoryPartOf(pattern);
    m_opt = &fileSystem;
    copyText(m_fileInfo.name, m_path.c_str());
    m_handle = m_opt->findfirst(pattern, m_fileInfo);
    return m_handle != noSearch;
}

bool CFileFindImpl::findNextFile()
{
    if (m_handle == noSearch) {
        return false;
    }
    copyText(m_fileInfo.name, m_path.c_str());
    return m_opt->findnext(static_cast<long>(m_handle), m_fileInfo) != -1;
}

void CFileFindImpl::close()
{
    if (m_handle != noSearch) {
        m_opt->findclose(static_cast<long>(m_handle));
        m_handle = noSearch;
    }
}

struct FileFindInternal
{
    CFileFindImpl impl;
};

CFileFind::CFileFind() : m_internal(new FileFindInternal) {}

CFileFind::~CFileFind()
{
    delete m_internal;
}

bool CFileFind::findFile(const char* fileName)
{
    return m_internal->impl.findFile(fileName);
}

bool CFileFind::findNextFile()
{
    return m_internal->impl.findNextFile();
}

void CFileFind::close()
{
    m_internal->impl.close();
}

size_t CFileFind::getLength()
{
    return m_internal->impl.entry().size;
}

std::string CFileFind::getFileName()
{
    return m_internal->impl.entry().name;
}

std::string CFileFind::getFilePath()
{
    return m_internal->impl.path<std::string>();
}

bool CFileFind::isReadOnly()
{
    return m_internal->impl.has(CFile::readOnly);
}

bool CFileFind::isDirectory()
{
    return m_internal->impl.has(CFile::directory);
}

bool CFileFind::isHidden()
{
    return m_internal->impl.has(CFile::hidden);
}

bool CFileFind::isNormal()
{
    return m_internal->impl.entry().attrib == CFile::normal;
}

CFileFindEx::CFileFindEx() : m_internal(new FileFindInternal) {}

CFileFindEx::~CFileFindEx()
{
    delete m_internal;
}

bool CFileFindEx::findFile(const char* fileName)
{
    return m_internal->impl.findFile(fileName);
}

bool CFileFindEx::findNextFile()
{
    return m_internal->impl.findNextFile();
}

void CFileFindEx::close()
{
    m_internal->impl.close();
}

size_t CFileFindEx::getLength()
{
    return m_internal->impl.entry().size;
}

CString CFileFindEx::getFileName()
{
    return m_internal->impl.entry().name;
}

CString CFileFindEx::getFilePath()
{
    return m_internal->impl.path<CString>();
}

bool CFileFindEx::isReadOnly()
{
    return m_internal->impl.has(CFile::readOnly);
}

bool CFileFindEx::isDirectory()
{
    return m_internal->impl.has(CFile::directory);
}

bool CFileFindEx::isHidden()
{
    return m_internal->impl.has(CFile::hidden);
}

bool CFileFindEx::isNormal()
{
    return m_internal->impl.entry().attrib == CFile::normal;
}

} // namespace Infra
} // namespace Tarsel
