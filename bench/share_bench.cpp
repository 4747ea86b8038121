// share_bench.cpp -- how long a user waits for a share, compared with the bare commands that make
// one.
//
// Runs as root on a machine of its own with a real disk at /Library, /etc and /var/lib/samba
// (bench.sh sees to that), with the whole bundle, a real Samba and the switch.  Times are those of
// the tool's caller: from just before the tool is started to its result, and from the closing of
// its input to its end.  After each, a client checks that the share is served, or that it is gone;
// that is not timed.
#include "programs.h"
#include "workloads.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

const fs::path BUNDLE = "/opt/bench/Pelago.app";
const fs::path TOOL = BUNDLE / "Contents/Library/shares/pelagoShareTool";
const fs::path SWITCH = BUNDLE / "Contents/Library/host/pelagoHost";
const fs::path PREFS = "/Library/Preferences/SystemConfiguration/com.apple.smb.server.plist";
const fs::path PASSWORD_FILE = "/opt/bench/password";
const fs::path SMALL_FOLDER = "/srv/bench/small", LARGE_FOLDER = "/srv/bench/large";
const std::string PASSWORD = "four plain words here", OWNER = "benchowner";
constexpr size_t TOGETHER = 10, MANY_FILES = 100000, MANY_ACCOUNTS = 10000, MANY_SHARES = 200;

// ---- Programs

std::string Content(const fs::path &path)
{
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

// The programs' output, which is shown when one of them fails.
const fs::path LOG = "/tmp/share_bench.log";

int Log()
{
    static const int log = open(LOG.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    return log;
}

void ShowLog() { fprintf(stderr, "%s", Content(LOG).c_str()); }

pid_t StartWords(const Words &words, Streams streams)
{
    std::vector<const char *> argv;
    for (const std::string &word : words) {
        argv.push_back(word.c_str());
    }
    argv.push_back(nullptr);
    return Start(argv.data(), streams);
}

struct Pipe {
    int ends[2];
    Pipe()
    {
        if (pipe2(ends, O_CLOEXEC) != 0) { FailCall("pipe"); }
    }
};

// Runs a program with this text on its standard input.  The text must fit into a pipe's buffer.
void Run(const Words &words, const std::string &input = "", int wantedStatus = 0)
{
    const Pipe pipe;
    if (write(pipe.ends[1], input.data(), input.size()) != static_cast<ssize_t>(input.size())) {
        FailCall("write");
    }
    close(pipe.ends[1]);
    const pid_t child = StartWords(words, {pipe.ends[0], Log(), Log()});
    close(pipe.ends[0]);
    Reap(child, words[0].c_str(), wantedStatus);
}

bool Succeeds(const std::string &command)
{
    return system((command + " >/dev/null 2>&1").c_str()) == 0;
}

void WaitUntil(const std::string &command)
{
    for (int attempts = 1000; !Succeeds(command); attempts--) {
        if (attempts == 0) { Fail("waited in vain: " + command); }
        usleep(10000);
    }
}

const std::string PING = "smbcontrol -t 1 smbd ping";

void CheckServed(const std::string &user, const std::string &share)
{
    Run({"smbclient", "-U", user + "%" + PASSWORD, "//127.0.0.1/" + share, "-c", "ls"});
}

void CheckGone(const std::string &user, const std::string &share)
{
    Run({"net", "conf", "showshare", share}, "", 255);
    Run({"pdbedit", "-L", "-u", user}, "", 255);
    Run({"getent", "passwd", user}, "", 2);
}

// ---- The two ways to a share

// A session of the tool, which shares the folder while its input is open.
class Session {
public:
    explicit Session(const std::string &user, fs::path folder = SMALL_FOLDER)
        : mUser(user), mShare("Share of " + user), mFolder(std::move(folder))
    {}

    void Start()
    {
        const Pipe input, output;
        mTool = StartWords({TOOL, mFolder, mShare, mUser, PASSWORD_FILE, "rw"},
                           {input.ends[0], output.ends[1], Log()});
        close(input.ends[0]);
        close(output.ends[1]);
        mInput = input.ends[1];
        mOutput = output.ends[0];
    }

    void AwaitUp()
    {
        std::string said;
        char byte = 0;
        while (read(mOutput, &byte, 1) == 1 && byte != '\n') {
            said += byte;
        }
        if (!said.starts_with("0 is the sharing result")) { Fail("not shared: " + said); }
    }

    void Up()
    {
        Start();
        AwaitUp();
    }

    void Down()
    {
        close(mInput);
        Reap(mTool, TOOL.c_str(), 0);
        close(mOutput);
    }

    void CheckServed() const { ::CheckServed(mUser, mShare); }
    void CheckGone() const { ::CheckGone(mUser, mShare); }

private:
    const std::string mUser, mShare;
    const fs::path mFolder;
    pid_t mTool = -1;
    int mInput = -1, mOutput = -1;
};

// The commands that any way of sharing must run, one after the other.
class Bare {
public:
    explicit Bare(const std::string &user) : mUser(user), mShare("Share of " + user) {}

    void Up()
    {
        Run({"useradd", "--system", "--no-create-home", "--home-dir", "/nonexistent", "--shell",
             "/usr/sbin/nologin", "--user-group", "--", mUser});
        Run({"smbpasswd", "-s", "-a", mUser}, PASSWORD + "\n" + PASSWORD + "\n");
        Run({"net", "conf", "import", "/dev/stdin", "--", mShare},
            "[" + mShare + "]\n path = " + SMALL_FOLDER.string() + "\n valid users = " + mUser +
                "\n force user = " + OWNER + "\n read only = no\n");
    }

    void Down()
    {
        Run({"net", "conf", "delshare", mShare});
        Run({"smbcontrol", "--", "smbd", "close-share", mShare});
        Run({"pdbedit", "-x", "-u", mUser});
        Run({"userdel", mUser});
    }

    void CheckServed() const { ::CheckServed(mUser, mShare); }
    void CheckGone() const { ::CheckGone(mUser, mShare); }

private:
    const std::string mUser, mShare;
};

// ---- The service

constexpr useconds_t SETTLING_MICROSECONDS = 300000;

// Changes the preferences, after which the switch starts or stops smbd.  The switch also checks
// after changes that do not concern it, so this waits until it will not run while time is measured.
void SetService(bool isOn)
{
    std::ofstream(PREFS) << "<plist version=\"1.0\"><dict><key>EnabledServices</key><array>"
                         << "<string>print</string>" << (isOn ? "<string>disk</string>" : "")
                         << "</array></dict></plist>\n";
    WaitUntil((isOn ? "" : "! ") + PING);
    usleep(SETTLING_MICROSECONDS);
}

void ServiceOn() { SetService(true); }
void ServiceOff() { SetService(false); }

void StartServiceBare()
{
    Run({"smbd", "-D"});
    WaitUntil(PING);
}

// ---- Contests

constexpr char BARE_UP[] = "useradd, smbpasswd, net conf import";
constexpr char BARE_DOWN[] = "net conf delshare, close-share, pdbedit -x, userdel";
constexpr char BARE_START_UP[] = "the same bare, and smbd -D until it answers";

template <typename Way> std::function<void()> CheckAndEnd(std::shared_ptr<Way> way)
{
    return [=] {
        way->CheckServed();
        way->Down();
        way->CheckGone();
    };
}

template <typename Way> std::function<void()> BeginAndCheck(std::shared_ptr<Way> way)
{
    return [=] {
        way->Up();
        way->CheckServed();
    };
}

Contest Up()
{
    ServiceOn();
    const auto session = std::make_shared<Session>("alice");
    const auto bare = std::make_shared<Bare>("alice");
    return {{},
            [=] { session->Up(); },
            {{BARE_UP, [=](size_t) { bare->Up(); }, true, {}, CheckAndEnd(bare)}},
            CheckAndEnd(session)};
}

Contest Down()
{
    ServiceOn();
    const auto session = std::make_shared<Session>("alice");
    const auto bare = std::make_shared<Bare>("alice");
    return {BeginAndCheck(session),
            [=] { session->Down(); },
            {{BARE_DOWN, [=](size_t) { bare->Down(); }, true, BeginAndCheck(bare),
              [=] { bare->CheckGone(); }}},
            [=] { session->CheckGone(); }};
}

Contest UpServiceOff()
{
    const auto session = std::make_shared<Session>("alice");
    const auto bare = std::make_shared<Bare>("alice");
    return {ServiceOff,
            [=] { session->Up(); },
            {{BARE_START_UP,
              [=](size_t) {
                  bare->Up();
                  StartServiceBare();
              },
              true, ServiceOff, CheckAndEnd(bare)}},
            CheckAndEnd(session)};
}

Contest DownServiceOff()
{
    const auto session = std::make_shared<Session>("alice");
    const auto bare = std::make_shared<Bare>("alice");
    return {[=] {
                ServiceOff();
                session->Up();
                session->CheckServed();
            },
            [=] { session->Down(); },
            {{BARE_DOWN, [=](size_t) { bare->Down(); }, true,
              [=] {
                  ServiceOff();
                  bare->Up();
                  StartServiceBare();
              },
              [=] { bare->CheckGone(); }}},
            [=] { session->CheckGone(); }};
}

// ---- Many at a time

constexpr char TEN_BARE[] = "ten bare sequences that start together";
using Sessions = std::vector<std::shared_ptr<Session>>;
using Bares = std::vector<std::shared_ptr<Bare>>;

template <typename Way> std::vector<std::shared_ptr<Way>> MakeTen()
{
    std::vector<std::shared_ptr<Way>> ways;
    for (size_t i = 0; i < TOGETHER; i++) {
        ways.push_back(std::make_shared<Way>("user" + std::to_string(i)));
    }
    return ways;
}

template <typename Ways> std::function<void()> CheckAndEndAll(const Ways &ways)
{
    return [=] {
        for (const auto &way : ways) {
            CheckAndEnd(way)();
        }
    };
}

void AllUp(const Sessions &sessions)
{
    for (const auto &session : sessions) {
        session->Start();
    }
    for (const auto &session : sessions) {
        session->AwaitUp();
    }
}

void AllUp(const Bares &bares)
{
    std::vector<std::jthread> threads;
    for (const auto &bare : bares) {
        threads.emplace_back([=] { bare->Up(); });
    }
}

Contest TenTogether()
{
    ServiceOn();
    const auto sessions = MakeTen<Session>();
    const auto bares = MakeTen<Bare>();
    const auto alone = sessions[0];
    return {{},
            [=] { AllUp(sessions); },
            {{"one session alone", [=](size_t) { alone->Up(); }, false, {}, CheckAndEnd(alone)},
             {TEN_BARE, [=](size_t) { AllUp(bares); }, true, {}, CheckAndEndAll(bares)}},
            CheckAndEndAll(sessions)};
}

Contest TenBareTogether()
{
    ServiceOn();
    const auto bares = MakeTen<Bare>();
    const auto alone = bares[0];
    return {{},
            [=] { AllUp(bares); },
            {{"one bare sequence", [=](size_t) { alone->Up(); }, true, {}, CheckAndEnd(alone)}},
            CheckAndEndAll(bares)};
}

// ---- On a crowded host

// The user database, unchanged and with many more accounts.
class Accounts {
public:
    Accounts()
    {
        for (const char *path : {"/etc/passwd", "/etc/group", "/etc/shadow", "/etc/gshadow"}) {
            mPlain[path] = mCrowded[path] = Content(path);
        }
        for (size_t i = 0; i < MANY_ACCOUNTS; i++) {
            const std::string name = "crowd" + std::to_string(i), id = std::to_string(20000 + i);
            mCrowded["/etc/passwd"] += name + ":x:" + id + ":" + id + "::/nonexistent:/bin/false\n";
            mCrowded["/etc/group"] += name + ":x:" + id + ":\n";
            mCrowded["/etc/shadow"] += name + ":!:19000::::::\n";
            mCrowded["/etc/gshadow"] += name + ":!::\n";
        }
    }
    void BeMany() const { Write(mCrowded); }
    void BeFew() const { Write(mPlain); }

private:
    using Files = std::map<std::string, std::string>;

    static void Write(const Files &files)
    {
        for (const auto &[path, content] : files) {
            std::ofstream(path) << content;
        }
    }

    Files mPlain, mCrowded;
};

void MakeManyShares()
{
    const fs::path text = "/tmp/shares.conf";
    std::ofstream file(text);
    for (size_t i = 0; i < MANY_SHARES; i++) {
        file << "[crowd" << i << "]\n path = " << SMALL_FOLDER.string()
             << "\n valid users = " << OWNER << "\n read only = yes\n comment = of the crowd\n";
    }
    file.close();
    Run({"net", "conf", "import", text});
}

void RemoveAllShares() { Run({"net", "conf", "drop"}); }

constexpr char WITHOUT[] = "the same without";

Contest UpAmong(const std::function<void()> &crowd, const std::function<void()> &disperse)
{
    ServiceOn();
    const auto session = std::make_shared<Session>("alice");
    const auto end = CheckAndEnd(session);
    const auto up = [=] { session->Up(); };
    return {crowd, up, {{WITHOUT, [=](size_t) { up(); }, true, {}, end}}, [=] {
                end();
                disperse();
            }};
}

Contest UpAmongAccounts()
{
    const auto accounts = std::make_shared<Accounts>();
    return UpAmong([=] { accounts->BeMany(); }, [=] { accounts->BeFew(); });
}

Contest UpAmongShares() { return UpAmong(MakeManyShares, RemoveAllShares); }

Contest UpOfManyFiles()
{
    ServiceOn();
    const auto large = std::make_shared<Session>("alice", LARGE_FOLDER);
    const auto small = std::make_shared<Session>("alice");
    return {{},
            [=] { large->Up(); },
            {{"a folder with one", [=](size_t) { small->Up(); }, true, {}, CheckAndEnd(small)}},
            CheckAndEnd(large)};
}

// ---- The machine

void MakeFolder(const fs::path &folder, size_t files)
{
    fs::create_directories(folder);
    for (size_t i = 0; i < files; i++) {
        std::ofstream(folder / ("file" + std::to_string(i)));
    }
    Run({"chown", "-R", OWNER, folder});
}

void PrepareMachine()
{
    if (!fs::exists("/run/throw-away-machine")) { Fail("run this on a throw-away machine only"); }
    umask(022);
    fs::create_directories(BUNDLE);
    fs::copy(FromEnvironment("PELAGO_BUNDLE"), BUNDLE,
             fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    for (const char *folder : {"/run/samba", "/var/log/samba", "/var/cache/samba",
                               "/var/lib/samba/private", "/etc/samba"}) {
        fs::create_directories(folder);
    }
    fs::copy_file(FromEnvironment("PELAGO_SMB_CONF"), "/etc/samba/smb.conf",
                  fs::copy_options::overwrite_existing);
    std::ofstream(PASSWORD_FILE) << PASSWORD << '\n';
    Run({"useradd", "--no-create-home", OWNER});
    MakeFolder(SMALL_FOLDER, 1);
    MakeFolder(LARGE_FOLDER, MANY_FILES);
    fs::create_directories(PREFS.parent_path());
    StartWords({SWITCH, "switch"}, {-1, Log(), Log()});
}

} // namespace

int main(int argc, char **argv)
{
    atexit(ShowLog);
    PrepareMachine();
    const auto all = Processors::All;
    Workload("a share is up", {{nullptr, 2.2}}, Up, 1, all);
    Workload("a share is taken down", {{nullptr, 1.6}}, Down, 1, all);
    Workload("up, service off before", {}, UpServiceOff, 1, all);
    Workload("taken down, service off before", {}, DownServiceOff, 1, all);
    Workload("ten sessions that start together, all up", {{"one session alone", 4}}, TenTogether, 1,
             all);
    Workload(TEN_BARE, {}, TenBareTogether, 1, all);
    Workload("up among 10,000 accounts", {{nullptr, 1.5}}, UpAmongAccounts, 1, all);
    Workload("up among 200 registry shares", {{nullptr, 1.5}}, UpAmongShares, 1, all);
    Workload("up of a folder with 100,000 files", {{nullptr, 1.5}}, UpOfManyFiles, 1, all);
    const int status = RunWorkloads(argc, argv);
    fs::remove(LOG);
    return status;
}
