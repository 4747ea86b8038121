// tool_fuzz.cpp -- runs the tool with any arguments, any standard input and any steps that fail,
// and compares it with a model of a session.  This file supplies the preferences, the scripts and
// the caller's streams.
#include "runScript.h"

#include <SystemConfiguration/SystemConfiguration.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

int ToolMain(int argc, char **argv); // the tool's main(), compiled under another name

namespace {

using Strings = std::vector<std::string>;

enum class Services { Absent, On, Off, NoArray };

// The steps that may fail, one bit each.
enum Step : unsigned {
    NO_FILE = 1,
    CREATE = 2,
    FIRST_LOCK = 4,
    SECOND_LOCK = 8,
    SET = 16,
    COMMIT = 32,
    UNSET = 64
};

// The run that the input describes.
struct Plan {
    Services services;
    unsigned failing; // Steps
    int statuses[4];  // of the scripts, in their order
    Strings arguments;
    std::string input;
    bool Fails(Step step) const { return (failing & step) != 0; }
};

// The effects of a run.
struct Trace {
    std::string out;
    std::vector<Strings> scripts; // each one's name and arguments
    int status = 0;
    bool isOn = false; // the service, afterwards
};

Plan sPlan;
Trace sTrace;
int sLocks, sSets;
CFTypeRef sValue; // under "EnabledServices"

const char *const SCRIPTS[] = {"adduser.sh", "addshare.sh", "rmshare.sh", "rmuser.sh"};

int StatusOf(const std::string &script)
{
    for (size_t i = 0; i < std::size(SCRIPTS); i++) {
        if (script == SCRIPTS[i]) { return sPlan.statuses[i]; }
    }
    fprintf(stderr, "there is no script %s\n", script.c_str());
    abort();
}

CFTypeRef NewServices(Services services)
{
    if (services == Services::Absent) { return nullptr; }
    if (services == Services::NoArray) { return CFRetain(CFSTR("disk")); }
    const CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
    CFArrayAppendValue(array, CFSTR("print"));
    if (services == Services::On) { CFArrayAppendValue(array, CFSTR("disk")); }
    return array;
}

bool IsOn()
{
    if (sValue == nullptr || CFGetTypeID(sValue) != CFArrayGetTypeID()) { return false; }
    const auto array = static_cast<CFArrayRef>(sValue);
    return CFArrayContainsValue(array, CFRangeMake(0, CFArrayGetCount(array)), CFSTR("disk"));
}

void Release(CFTypeRef value)
{
    if (value != nullptr) { CFRelease(value); }
}

} // namespace

int RunScript(const char *const argv[])
{
    const char *slash = strrchr(argv[0], '/');
    Strings words = {slash == nullptr ? argv[0] : slash + 1};
    for (const char *const *word = argv + 1; *word != nullptr; word++) {
        words.emplace_back(*word);
    }
    sTrace.scripts.push_back(words);
    return StatusOf(words[0]);
}

extern "C" {

int __wrap_access(const char *, int) { return sPlan.Fails(NO_FILE) ? -1 : 0; }
SCPreferencesRef __wrap_SCPreferencesCreate(CFAllocatorRef, CFStringRef name, CFStringRef)
{
    // The tool only releases the session, so any object serves as one.
    return sPlan.Fails(CREATE)
               ? nullptr
               : reinterpret_cast<SCPreferencesRef>(const_cast<void *>(CFRetain(name)));
}
Boolean __wrap_SCPreferencesLock(SCPreferencesRef, Boolean)
{
    return !sPlan.Fails(sLocks++ == 0 ? FIRST_LOCK : SECOND_LOCK);
}
Boolean __wrap_SCPreferencesUnlock(SCPreferencesRef) { return true; }
CFPropertyListRef __wrap_SCPreferencesGetValue(SCPreferencesRef, CFStringRef) { return sValue; }
Boolean __wrap_SCPreferencesSetValue(SCPreferencesRef, CFStringRef, CFPropertyListRef value)
{
    if (sPlan.Fails(sSets++ == 0 ? SET : UNSET)) { return false; }
    CFRetain(value);
    Release(sValue);
    sValue = value;
    return true;
}
Boolean __wrap_SCPreferencesCommitChanges(SCPreferencesRef) { return !sPlan.Fails(COMMIT); }

} // extern "C"

namespace {

// ---- The model

// Adds the effects of a session from the first script on, when the service is on.
void ModelSession(bool wasOn, Trace *trace)
{
    const Strings &word = sPlan.arguments;
    const int *status = sPlan.statuses;
    trace->scripts.push_back({SCRIPTS[0], word[2], word[2], word[3]});
    trace->status = 1;
    const bool hasUser = status[0] == 0;
    if (hasUser) {
        trace->scripts.push_back({SCRIPTS[1], word[2], word[3], word[0], word[1], word[4]});
        trace->status = status[1];
        trace->out += std::to_string(status[1]) + " is the sharing result (0=ok). " +
                      (status[1] == 0 ? "Press Enter to delete it and exit:\n" : "Exiting.\n");
    } else {
        trace->out += "1 - failed to create user " + word[2] + "\n";
    }
    if (hasUser && status[1] == 0) {
        trace->scripts.push_back({SCRIPTS[2], word[1], word[0]});
        trace->status = status[2];
        trace->out += std::to_string(status[2]) +
                      " is the delete share result (0=success, nonzero=failure).\n";
        if (sPlan.Fails(SECOND_LOCK)) {
            trace->status = 1;
            return;
        }
    }
    trace->isOn = wasOn || sPlan.Fails(UNSET);
    if (!wasOn && (sPlan.Fails(UNSET) || sPlan.Fails(COMMIT))) { trace->status = 1; }
    if (hasUser) {
        trace->scripts.push_back({SCRIPTS[3], word[2]});
        if (status[3] != 0) { trace->status = 1; }
    }
}

Trace Model()
{
    const auto refused = [](const char *line, int status) {
        return Trace{std::string(line) + "\n", {}, status};
    };
    if (sPlan.arguments.size() != 5) {
        return refused("2 - usage error. pelagoShareTool <folderPath> <shareName> <username> "
                       "<pathPasswordFile",
                       2);
    }
    if (sPlan.Fails(NO_FILE)) {
        return refused("1 - cannot find Samba preferences file "
                       "/Library/Preferences/SystemConfiguration/com.apple.smb.server.plist.",
                       1);
    }
    if (sPlan.Fails(CREATE)) { return refused("1 - Failure reported by SCPreferencesCreate", 1); }
    if (sPlan.Fails(FIRST_LOCK)) {
        return refused("1 - Unable to lock preferences. Are you running as root?", 1);
    }
    if (sPlan.services == Services::NoArray) {
        return refused("1 - Unable to determine Windows File Sharing capability", 1);
    }
    const bool wasOn = sPlan.services == Services::On;
    if (!wasOn && (sPlan.Fails(SET) || sPlan.Fails(COMMIT))) {
        return refused("1 - Unable to enable Windows File Sharing", 1);
    }
    Trace trace;
    trace.isOn = true;
    ModelSession(wasOn, &trace);
    return trace;
}

// ---- A run

// Replaces the caller's streams during its lifetime; Out() returns the tool's output.
class Streams {
public:
    Streams() : mIn(stdin), mOut(stdout), mErr(stderr)
    {
        stdin = sPlan.input.empty() ? fopen("/dev/null", "re")
                                    : fmemopen(sPlan.input.data(), sPlan.input.size(), "r");
        stdout = open_memstream(&mText, &mSize);
        stderr = open_memstream(&mNoise, &mNoiseSize);
    }
    ~Streams()
    {
        fclose(stdin);
        fclose(stdout);
        fclose(stderr);
        stdin = mIn;
        stdout = mOut;
        stderr = mErr;
        free(mText);
        free(mNoise);
    }
    Streams(const Streams &) = delete;
    Streams &operator=(const Streams &) = delete;
    std::string Out() const
    {
        fflush(stdout);
        return {mText, mSize};
    }

private:
    FILE *mIn, *mOut, *mErr;
    char *mText = nullptr, *mNoise = nullptr;
    size_t mSize = 0, mNoiseSize = 0;
};

void Run()
{
    sTrace = {};
    sLocks = sSets = 0;
    sValue = NewServices(sPlan.services);
    Strings words = {"pelagoShareTool"};
    words.insert(words.end(), sPlan.arguments.begin(), sPlan.arguments.end());
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const Streams streams;
    sTrace.status = ToolMain(static_cast<int>(words.size()), argv.data());
    sTrace.out = streams.Out();
    sTrace.isOn = IsOn();
    Release(sValue);
}

Strings Split(const std::string &bytes)
{
    Strings parts(1);
    for (const char byte : bytes) {
        if (byte == '\0') {
            parts.emplace_back();
        } else {
            parts.back() += byte;
        }
    }
    return parts;
}

[[noreturn]] void Fail(const char *what, const Trace &model)
{
    fprintf(stderr, "%s: status %d, not %d; output \"%s\", not \"%s\"\n", what, sTrace.status,
            model.status, sTrace.out.c_str(), model.out.c_str());
    abort();
}

} // namespace

// The input: a byte for the service's state, one for the steps that fail, four for the statuses,
// and then the arguments, each terminated by a NUL; the last part is standard input.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 6) { return 0; }
    sPlan = {static_cast<Services>(data[0] % 4), data[1] & 0x7FU, {}, {}, {}};
    for (int i = 0; i < 4; i++) {
        sPlan.statuses[i] = data[2 + i] % 8 < 5 ? 0 : data[2 + i]; // most succeed
    }
    sPlan.arguments = Split({reinterpret_cast<const char *>(data) + 6, size - 6});
    sPlan.input = sPlan.arguments.back();
    sPlan.arguments.pop_back();
    Run();
    const Trace model = Model();
    if (sTrace.out != model.out) { Fail("another output", model); }
    if (sTrace.status != model.status) { Fail("another status", model); }
    if (sTrace.scripts != model.scripts) { Fail("other scripts, or other arguments", model); }
    if (sPlan.arguments.size() == 5 && model.scripts.size() > 0 && sTrace.isOn != model.isOn) {
        Fail("another state of the service", model);
    }
    return 0;
}
