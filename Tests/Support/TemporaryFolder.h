#ifndef INFRA_TESTS_SUPPORT_TEMPORARYFOLDER_H
#define INFRA_TESTS_SUPPORT_TEMPORARYFOLDER_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace Tarsel
{
namespace TestSupport
{

/// An empty folder of the test's own, removed with all that is in it.
class CTemporaryFolder
{
public:
    CTemporaryFolder()
    {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "infra-test-XXXXXX").string();
        m_path = mkdtemp(pattern.data()) == nullptr ? "/no/such/folder" : pattern;
    }
    ~CTemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    CTemporaryFolder(const CTemporaryFolder&) = delete;
    CTemporaryFolder& operator=(const CTemporaryFolder&) = delete;

    const std::string& path() const { return m_path; }
    std::string path(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

inline std::string contentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

inline void setContent(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

} // namespace TestSupport
} // namespace Tarsel

#endif
