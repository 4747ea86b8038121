// processes.cpp -- reads files and folders of /proc.
#include "processes.h"

#include "hostFile.h"

#include <algorithm>
#include <dirent.h>
#include <memory>
#include <unistd.h>

using namespace pelago::platform;

std::string TextOf(const std::string &path)
{
    std::string text;
    return HostReadText(path.c_str(), &text) == 0 ? text : std::string();
}

std::string ProgramOf(const std::string &pid)
{
    char path[4096];
    const ssize_t size = readlink(("/proc/" + pid + "/exe").c_str(), path, sizeof path);
    // A confined service may not see which program another process runs; it sees the process's
    // name.
    if (size <= 0) { return FirstWord(TextOf("/proc/" + pid + "/comm")); }
    std::string_view name(path, static_cast<size_t>(size));
    constexpr std::string_view DELETED = " (deleted)";
    if (name.ends_with(DELETED)) { name.remove_suffix(DELETED.size()); }
    return std::string(name.substr(name.rfind('/') + 1));
}

std::vector<std::string> EntriesOf(const std::string &folder)
{
    std::vector<std::string> entries;
    const std::unique_ptr<DIR, int (*)(DIR *)> stream(opendir(folder.c_str()), closedir);
    while (const dirent *entry = stream ? readdir(stream.get()) : nullptr) {
        if (entry->d_name[0] != '.') { entries.emplace_back(entry->d_name); }
    }
    return entries;
}

bool IsNumber(const std::string &text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string FirstWord(std::string_view text)
{
    const size_t begin = std::min(text.find_first_not_of(" \t\n"), text.size());
    return std::string(text.substr(begin, text.find_first_of(" \t\n", begin) - begin));
}

std::string ParentOf(const std::string &pid)
{
    return FirstWord(HostField(TextOf("/proc/" + pid + "/status"), "PPid"));
}
