// Compares the calls for text in UTF-8 with the bare calls, and with others that copy the text.
#include "workloads.h"

#include "codeset.h"
#include "posix.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <glib.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

// A folder for a program's run.
class BenchFolder {
public:
    BenchFolder()
    {
        if (mkdtemp(mPath.data()) == nullptr) { abort(); }
    }
    ~BenchFolder() { std::filesystem::remove_all(mPath); }
    const std::string &Path() const { return mPath; }

private:
    std::string mPath = std::filesystem::temp_directory_path().string() + "/pelagoBenchXXXXXX";
};

std::string Taken(char *text)
{
    const std::string taken = text == nullptr ? "(none)" : text;
    free(text);
    return taken;
}

// ---- stat

void StatOfTheRoot()
{
    const auto ours = [] {
        struct stat status;
        return Posix_Stat(Opaque("/"), &status) == 0 ? status.st_ino : 0;
    };
    const auto bare = [] {
        struct stat status;
        return stat(Opaque("/"), &status) == 0 ? status.st_ino : 0;
    };
    const auto standard = [] { return std::filesystem::status(Opaque("/")); };
    // The least work of any wrapper that copies the path.
    const auto copied = [] {
        struct stat status;
        char *path = strdup(Opaque("/"));
        const int result = stat(path, &status);
        free(path);
        return result == 0 ? status.st_ino : 0;
    };
    Workload("stat of /", {{"std::filesystem::status", 1.0}}, Repeat(ours),
             {{"std::filesystem::status", Repeat(standard)},
              {"stat", Repeat(bare), false},
              {"strdup, stat and free", Repeat(copied), false}},
             ours() != 0 && ours() == bare() && ours() == copied() &&
                 std::filesystem::is_directory(standard()));
}

// ---- With ICU and without: both ways convert the text that a call returns

using Conversion = std::function<void()>; // switches ICU on or off

// Runs the call with this conversion, which another workload may have switched.
template <typename Call> std::function<void(size_t)> On(const Conversion &use, const Call &call)
{
    return [=](size_t count) {
        use();
        Repeat(call)(count);
    };
}

// ---- getenv

constexpr char LAST[] = "PELAGO_LAST";

// 79 variables whose names begin with one of these in turn, followed by the one that is read.
class Environment {
public:
    explicit Environment(const std::vector<std::string> &beginnings)
    {
        for (size_t i = 0; i < 79; i++) {
            mVariables.push_back(beginnings[i % beginnings.size()] + std::to_string(i) +
                                 "=/some/value/of/usual/length");
        }
        mVariables.push_back(std::string(LAST) + "=/home/someone/Library/Preferences");
        for (std::string &variable : mVariables) {
            mPointers.push_back(variable.data());
        }
        mPointers.push_back(nullptr);
    }
    void Use() { environ = mPointers.data(); }

private:
    std::vector<std::string> mVariables;
    std::vector<char *> mPointers;
};

// The C library compares two bytes of a name first, and the rest only if they are equal.
Environment sAlike({"PELAGO_VARIABLE_"});
Environment sUnlike({"XDG_", "LC_", "SSH_", "GIT_", "SSL_", "DBUS_"});

void GetenvOfTheLast(const char *name, std::vector<Goal> goals, Environment &environment,
                     const Conversion &use)
{
    const Conversion ready = [&environment, use] {
        environment.Use();
        use();
    };
    const auto ours = [] { return Posix_Getenv(Opaque(LAST)); };
    const auto bare = [] { return getenv(Opaque(LAST)); };
    const auto glib = [] { return g_getenv(Opaque(LAST)); };
    const auto copied = [] { return std::string(getenv(Opaque(LAST))); };
    ready();
    const bool same = ours() == std::string_view(bare()) && ours() == ours() &&
                      glib() == std::string_view(bare()) && copied() == bare();
    Workload(name, std::move(goals), On(ready, ours),
             {{"getenv", On(ready, bare)},
              {"g_getenv", On(ready, glib)},
              {"std::string of getenv", On(ready, copied)}},
             same);
}

// ---- Paths

void RealPathOfEight(const char *name, const std::string &folder, const Conversion &use)
{
    std::string path = folder;
    while (std::ranges::count(path, '/') < 8) {
        path += "/component";
    }
    std::filesystem::create_directories(path);
    const auto ours = [=] { return Taken(Posix_RealPath(path.c_str())); };
    const auto standard = [=] { return std::filesystem::canonical(path).string(); };
    const auto bare = [=] { return Taken(realpath(path.c_str(), nullptr)); };
    use();
    Workload(name, {{"std::filesystem::canonical", 1.0}}, On(use, ours),
             {{"std::filesystem::canonical", Repeat(standard)}, {"realpath", Repeat(bare), false}},
             ours() == standard() && ours() == bare());
}

void LinkOfTheProgram(const char *name, const Conversion &use)
{
    const auto ours = [] { return Taken(Posix_ReadLink(Opaque("/proc/self/exe"))); };
    const auto glib = [] {
        char *target = g_file_read_link(Opaque("/proc/self/exe"), nullptr);
        const std::string taken = target;
        g_free(target);
        return taken;
    };
    const auto standard = [] { return std::filesystem::read_symlink("/proc/self/exe").string(); };
    const auto bare = [] {
        char target[2048];
        return std::string(target, readlink(Opaque("/proc/self/exe"), target, sizeof target));
    };
    use();
    Workload(name, {{"g_file_read_link", 1.05}}, On(use, ours),
             {{"g_file_read_link", Repeat(glib)},
              {"std::filesystem::read_symlink", Repeat(standard)},
              {"readlink", Repeat(bare), false}},
             ours() == standard() && ours() == bare() && ours() == glib());
}

} // namespace

int main(int argc, char **argv)
{
    const BenchFolder folder;
    const std::string path = folder.Path();
    std::ofstream(path + "/icudt44l.dat") << "data"; // its presence makes the library use ICU

    StatOfTheRoot();
    const Conversion withIcu = [=] { CodeSet_Init(path.c_str()); }, withoutIcu = CodeSet_DontUseIcu;
    GetenvOfTheLast("the last of 80 variables, without ICU", {{"getenv", 1.5}}, sAlike, withoutIcu);
    GetenvOfTheLast("the last of 80 variables, with ICU", {{"getenv", 3}}, sAlike, withIcu);
    GetenvOfTheLast("the last of 80 variables that begin otherwise, without ICU", {}, sUnlike,
                    withoutIcu);
    GetenvOfTheLast("the last of 80 variables that begin otherwise, with ICU", {}, sUnlike,
                    withIcu);
    RealPathOfEight("the real path of 8 components, without ICU", path, withoutIcu);
    RealPathOfEight("the real path of 8 components, with ICU", path, withIcu);
    LinkOfTheProgram("the link of the own program, without ICU", withoutIcu);
    LinkOfTheProgram("the link of the own program, with ICU", withIcu);
    return RunWorkloads(argc, argv);
}
