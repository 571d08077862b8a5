#ifndef INFRA_EXAMPLES_FLOW_ROTATINGLOG_H
#define INFRA_EXAMPLES_FLOW_ROTATINGLOG_H

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include <Infra/Infra3/PrintLog.h>

/// Every line of the process goes to files of 4 KiB as well, of which the last and three older ones
/// stay, in a temporary folder. The folder is removed at the end.
class CRotatingLog
{
public:
    explicit CRotatingLog(const std::string& folder) : m_folder(folder)
    {
        std::filesystem::create_directory(m_folder);
        command("-logsavesetting", "bysize", "4", "3");
        command("-logpath", path().c_str());
    }
    ~CRotatingLog()
    {
        command("-logpath", "");
        Tarsel::Infra::logCleanup();
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
    CRotatingLog(const CRotatingLog&) = delete;
    CRotatingLog& operator=(const CRotatingLog&) = delete;

    void showFiles() const
    {
        for (const auto& entry : std::filesystem::directory_iterator(m_folder)) {
            std::printf("log: %s, %llu bytes\n", entry.path().filename().c_str(),
                        static_cast<unsigned long long>(entry.file_size()));
        }
    }

private:
    std::string path() const { return m_folder + "/flow.log"; }

    template <typename... Words>
    static void command(Words... words)
    {
        const char* list[] = {words...};
        Tarsel::Infra::setLogFilter(static_cast<int>(sizeof...(words)), const_cast<char**>(list));
    }

    const std::string m_folder;
};

#endif
