// records.cpp -- reads and writes the records, files in /run/pelago.
#include "records.h"

#include "lockFile.h"
#include "names.h"
#include "processes.h"
#include "report.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace pelago::platform;

namespace {

constexpr char STATE[] = "/run/pelago";
constexpr char USERS[] = "/run/pelago/users";
constexpr char SHARES[] = "/run/pelago/shares";
constexpr char LOCK[] = "/run/pelago/lock";
constexpr char FIRST_LOOK[] = "/run/pelago/looked"; // exists after the first complete look
constexpr char CLOSED[] = "/run/pelago/closed";     // made by the package's prerm
constexpr char LINK_NAME[] = "/folder";
constexpr char RECORD_NAME[] = "/record";
constexpr char FRESH_NAME[] = "/.new"; // no name of a record begins with a dot
constexpr int LOCK_SECONDS = 60;
// smbd, which acts as the owner of the shared folder, passes through these folders; it need not
// read them.
constexpr mode_t FOLDER_MODE = 0711;

[[noreturn]] void FailWith(const std::string &what, const std::string &path)
{
    Fail(what + ' ' + path + ": " + strerror(errno));
}

// Makes a folder of root's if it is missing, and sets its mode.  Fails when that fails.
void MakeFolder(const char *path)
{
    struct stat status;
    if (mkdir(path, FOLDER_MODE) != 0 && errno != EEXIST) { FailWith("cannot make", path); }
    if (lstat(path, &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != 0) {
        Fail(std::string(path) + " is not a folder of root's");
    }
    // umask() or a script that was killed here may have left another mode.
    if ((status.st_mode & ALLPERMS) != FOLDER_MODE && chmod(path, FOLDER_MODE) != 0) {
        FailWith("cannot make", path);
    }
}

// Returns the folder that holds the record's file.
std::string FolderOf(const Record &record)
{
    return record.kind == RecordKind::User ? USERS : SHARES + ('/' + record.id);
}

// Escapes newlines, which end a field, and the backslash: a path may hold any byte but NUL.
std::string Escaped(const std::string &text)
{
    std::string result;
    for (const char c : text) {
        result += c == '\n' ? "\\n" : c == '\\' ? "\\\\" : std::string(1, c);
    }
    return result;
}

std::string Unescaped(std::string_view text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); i++) {
        const bool isEscape = text[i] == '\\' && i + 1 < text.size();
        if (isEscape) { i++; }
        result += isEscape && text[i] == 'n' ? '\n' : text[i];
    }
    return result;
}

// Returns the content of the record's file, one field a line: its name, a blank, its value.
std::string FileOf(const Record &record)
{
    std::string text;
    for (const auto &[name, value] : record.fields) {
        text += name + ' ' + Escaped(value) + '\n';
    }
    if (record.session) { text += "session " + record.session->Text() + '\n'; }
    if (record.maker) { text += "maker " + record.maker->Text() + '\n'; }
    return text;
}

// Parses the content of a record's file.
Record FromText(RecordKind kind, const std::string &id, const std::string &text)
{
    Record record{kind, id, {}, {}, {}};
    HostForEachLine(text, [&](std::string_view line) {
        const std::string name(line.substr(0, line.find(' ')));
        const std::string_view value = line.substr(std::min(name.size() + 1, line.size()));
        if (name == "session") {
            record.session = ProcessMark::FromText(value);
        } else if (name == "maker") {
            record.maker = ProcessMark::FromText(value);
        } else {
            record.fields[name] = Unescaped(value);
        }
    });
    return record;
}

// Reads a record's file.  If it cannot be read, or is not written yet, the record has no processes.
Record ReadRecord(RecordKind kind, const std::string &id)
{
    const Record nobodys{kind, id, {}, {}, {}};
    return FromText(kind, id, TextOf(nobodys.Path()));
}

// Removes a file or an empty folder; true also when there is none.
bool RemoveQuietly(const std::string &path) { return remove(path.c_str()) == 0 || errno == ENOENT; }

} // namespace

RecordsLock::RecordsLock()
{
    if (geteuid() != 0) { Fail("only root may do this"); }
    for (const char *folder : {STATE, USERS, SHARES}) {
        MakeFolder(folder);
    }
    mFd = HoldLock(LOCK, LOCK_SECONDS, "another share script");
}

std::string Record::Get(const std::string &field) const
{
    const auto found = fields.find(field);
    return found == fields.end() ? std::string() : found->second;
}

bool Record::IsAlive() const
{
    if (maker) { return maker->IsRunning(); }
    return session && session->IsRunning();
}

bool Record::IsInHand() const
{
    const bool isSessionDead = !session || !session->IsRunning();
    return isSessionDead && maker && maker->IsRunning();
}

std::string Record::Holding() const
{
    return IsInHand() ? "still being cleared away" : "in use by a session that runs";
}

std::string Record::User() const { return kind == RecordKind::User ? id : Get("user"); }

bool Record::IsShareNamed(const std::string &share) const
{
    const std::string name = kind == RecordKind::Share ? Get("share") : "";
    return !name.empty() && Folded(name) == Folded(share);
}

std::string Record::Path() const
{
    return FolderOf(*this) + (kind == RecordKind::User ? '/' + id : RECORD_NAME);
}

std::string Record::LinkPath() const { return FolderOf(*this) + LINK_NAME; }

std::vector<Record> ReadRecords(RecordKind kind)
{
    // Left by a script that was killed while it wrote a record.  Nobody else writes one now: this
    // process holds the lock.
    RemoveQuietly(std::string(USERS) + FRESH_NAME);
    std::vector<Record> records;
    const char *folder = kind == RecordKind::User ? USERS : SHARES;
    for (const std::string &id : EntriesOf(folder)) {
        records.push_back(ReadRecord(kind, id));
    }
    return records;
}

std::optional<Record> FindUserRecord(const std::string &user)
{
    Record record = ReadRecord(RecordKind::User, user);
    return access(record.Path().c_str(), F_OK) == 0 ? std::optional(record) : std::nullopt;
}

std::optional<Record> FindShareRecord(const std::string &share)
{
    for (Record &record : ReadRecords(RecordKind::Share)) {
        if (record.IsShareNamed(share)) { return std::move(record); }
    }
    return std::nullopt;
}

void WriteRecord(const Record &record)
{
    const std::string path = record.Path();
    const std::string fresh = FolderOf(record) + FRESH_NAME;
    const std::string text = FileOf(record);
    const OwnedFd fd(
        open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!fd.IsOpen() ||
        write(fd.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        rename(fresh.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(fresh.c_str());
        errno = error;
        FailWith("cannot write", path);
    }
}

Record MakeShareRecord(const std::string &target)
{
    std::string folder = std::string(SHARES) + "/XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) { FailWith("cannot make a folder in", SHARES); }
    Record record{RecordKind::Share, folder.substr(folder.rfind('/') + 1), {}, {}, {}};
    if (chmod(folder.c_str(), FOLDER_MODE) != 0 ||
        symlink(target.c_str(), record.LinkPath().c_str()) != 0) {
        const int error = errno;
        RemoveRecord(record);
        errno = error;
        FailWith("cannot make", record.LinkPath());
    }
    return record;
}

void RemakeShareFolder(const std::string &id)
{
    MakeFolder((std::string(SHARES) + '/' + id).c_str());
}

bool RemoveRecord(const Record &record)
{
    bool isDone = RemoveQuietly(FolderOf(record) + FRESH_NAME) && RemoveQuietly(record.Path());
    if (record.kind == RecordKind::Share) {
        isDone = isDone && RemoveQuietly(record.LinkPath()) && RemoveQuietly(FolderOf(record));
    }
    if (!isDone) { Say("cannot remove " + record.Path() + ": " + strerror(errno)); }
    return isDone;
}

bool IsFirstLook() { return access(FIRST_LOOK, F_OK) != 0; }

void NoteFirstLook()
{
    const OwnedFd fd(open(FIRST_LOOK, O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!fd.IsOpen()) { FailWith("cannot write", FIRST_LOOK); }
}

std::string IdOfSharePath(const std::string &path)
{
    const std::string before = std::string(SHARES) + '/';
    if (!path.starts_with(before) || !path.ends_with(LINK_NAME)) { return ""; }
    const size_t size = path.size() - before.size() - strlen(LINK_NAME);
    if (path.size() < before.size() + strlen(LINK_NAME)) { return ""; }
    const std::string id = path.substr(before.size(), size);
    return id.find_first_of("/.") == std::string::npos ? id : "";
}

void CheckIsOpen()
{
    if (access(CLOSED, F_OK) == 0) {
        Fail("no session can begin, for the package is being removed");
    }
}

ProcessMark CallerSession()
{
    const pid_t parent = getppid();
    const std::optional<ProcessMark> caller = ProcessMark::Of(parent);
    // If the caller died before the script began, the script has a new parent: process 1, or a
    // process of another process group.  A script that a shell or a supervisor has started in a
    // group of its own has such a parent, too, but leads its group.
    const bool isStranger =
        getpgid(parent) != getpgrp() || (parent == 1 && ProgramOf("1") != "pelagoShareTool");
    const bool isOrphan = getpgrp() != getpid() && isStranger;
    if (!caller || isOrphan) { Fail("the caller has gone"); }
    return *caller;
}
