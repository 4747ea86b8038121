// encodings.cpp -- conversions between all encodings, strings of them, and their names.
#include "twins.h"

#include "codeset.h"
#include "unicode.h"
#include "utf.h"

#include "../../unicode/encodingList.h"

#include <filesystem>
#include <fstream>
#include <unistd.h>

using namespace pelago;

namespace {

struct Encoding {
    StringEncoding value;
    std::string name;
};

const std::vector<Encoding> &Supported()
{
    static const std::vector<Encoding> encodings = [] {
        std::vector<Encoding> all;
#define ADD(value, constant, name, isSupported, ...)                                               \
    if (isSupported) { all.push_back({static_cast<StringEncoding>(value), name}); }
        ENCODINGS(ADD)
#undef ADD
        return all;
    }();
    return encodings;
}

// A folder with the data file whose presence makes the library use ICU.
struct IcuFolder {
    std::string path = std::filesystem::temp_directory_path() / "twinsXXXXXX";
    IcuFolder()
    {
        if (mkdtemp(path.data()) == nullptr) { abort(); }
        std::ofstream(path + "/icudt44l.dat") << "data";
    }
    ~IcuFolder() { std::filesystem::remove_all(path); }
};

void ThroughIcu()
{
    static const IcuFolder folder;
    static const bool isUsed = CodeSet_Init(folder.path.c_str());
    if (!isUsed) { abort(); }
}

std::string Converted(const std::string &from, const std::string &text, const std::string &to)
{
    char *out = nullptr;
    size_t size = 0;
    if (!CodeSet_GenericToGeneric(from.c_str(), text.data(), text.size(), to.c_str(),
                                  CODESET_INVALID_SUBSTITUTE, &out, &size) ||
        out == nullptr) {
        return {};
    }
    const std::string converted(out, size);
    free(out);
    return converted;
}

// Returns text in the encoding, some of it damaged.
std::string Encoded(Numbers &numbers, const std::string &encoding)
{
    if (numbers.OneIn(4)) { return numbers.AnyBytes(numbers.Below(24)); }
    std::string text =
        Converted("UTF-8", AnyText(numbers, numbers.Below(numbers.OneIn(20) ? 900 : 16)), encoding);
    for (unsigned i = numbers.OneIn(2) ? numbers.Below(3) : 0; i > 0 && !text.empty(); i--) {
        text[numbers.Below(text.size())] = static_cast<char>(numbers.Next());
    }
    if (numbers.OneIn(5) && !text.empty()) { text.pop_back(); }
    return text;
}

void Convert(Numbers &numbers, Trial *trial)
{
    const std::string from = numbers.Of(Supported()).name, to = numbers.Of(Supported()).name;
    const std::string text = Encoded(numbers, from);
    const unsigned policy = numbers.Below(3);
    trial->AddInput(from + " " + to + " " + std::to_string(policy));
    trial->AddInput(text);
    char *out = nullptr;
    size_t size = 0;
    trial->AddResult(CodeSet_GenericToGeneric(from.c_str(), text.data(), text.size(), to.c_str(),
                                              policy, &out, &size));
    trial->TakeResult(out, size);
    trial->AddResult(CodeSet_IsValidBuffer(text.data(), text.size(), from.c_str()));
    trial->AddResult(CodeSet_CanConvert(from.c_str(), to.c_str()));
    CodeSetFailure failure;
    if (CodeSet_Convert(from.c_str(), text.data(), text.size(), to.c_str(), policy, &out, &size,
                        &failure)) {
        free(out);
    }
    trial->AddResult(failure.reason);
    trial->AddResult(static_cast<long long>(failure.offset));
}

template <typename From, typename To>
void Utf(Numbers &numbers, Trial *trial,
         UtfResult (*convert)(const From **, const From *, To **, To *, bool))
{
    std::vector<From> source(numbers.Below(12));
    for (From &unit : source) {
        unit = static_cast<From>(numbers.OneIn(3) ? numbers.Next() : numbers.Integer());
        if (numbers.OneIn(4)) { unit = static_cast<From>(0xD700 + numbers.Below(0xA00)); }
    }
    if (sizeof(From) == 1) {
        const std::string text = Encoded(numbers, "UTF-8");
        source.assign(text.begin(), text.end());
    }
    std::vector<To> target(numbers.Below(30));
    const bool isLenient = numbers.OneIn(2);
    for (const From unit : source) {
        trial->AddInput(std::to_string(unit));
    }
    const From *at = source.data();
    To *out = target.data();
    const UtfResult result = convert(&at, at + source.size(), &out, out + target.size(), isLenient);
    trial->AddResult(static_cast<int>(result));
    trial->AddResult(at - source.data());
    for (const To *unit = target.data(); unit < out; unit++) {
        trial->AddResult(static_cast<long long>(*unit));
    }
}

} // namespace

void Conversions(Numbers &numbers, Trial *trial)
{
    ThroughIcu();
    Convert(numbers, trial);
}

void ConversionsWithoutIcu(Numbers &numbers, Trial *trial)
{
    CodeSet_DontUseIcu();
    Convert(numbers, trial);
}

void UnicodeStrings(Numbers &numbers, Trial *trial)
{
    ThroughIcu();
    const Encoding &from = numbers.Of(Supported()), &to = numbers.Of(Supported());
    const std::string text = Encoded(numbers, from.name);
    const auto size = static_cast<ssize_t>(text.size());
    trial->AddInput(from.name + " " + to.name);
    trial->AddInput(text);
    trial->AddResult(Unicode_IsBufferValid(text.data(), size, from.value));
    trial->TakeResult(Unicode_EscapeBuffer(text.data(), size, from.value));
    trial->TakeResult(Unicode_AllocIfValid(text.data(), size, from.value));
    char *string = Unicode_AllocWithLength(text.data(), size, from.value);
    trial->AddResult(string);
    trial->AddResult(static_cast<long long>(Unicode_BytesRequired(string, to.value)));
    trial->AddResult(Unicode_CanGetBytesWithEncoding(string, to.value));
    size_t length = 0;
    char *bytes = Unicode_GetAllocBytesWithLength(string, to.value, -1, &length);
    trial->TakeResult(bytes, length);
    std::string copy(numbers.Below(40), '\0');
    length = 0;
    trial->AddResult(Unicode_CopyBytes(copy.data(), string, copy.size(), &length, to.value));
    trial->AddResult(copy.substr(0, length));
    free(string);
}

void UtfConverters(Numbers &numbers, Trial *trial)
{
    switch (numbers.Below(6)) {
    case 0: return Utf(numbers, trial, Utf32ToUtf16);
    case 1: return Utf(numbers, trial, Utf32ToUtf8);
    case 2: return Utf(numbers, trial, Utf16ToUtf32);
    case 3: return Utf(numbers, trial, Utf16ToUtf8);
    case 4: return Utf(numbers, trial, Utf8ToUtf16);
    default: return Utf(numbers, trial, Utf8ToUtf32);
    }
}

void Normalization(Numbers &numbers, Trial *trial)
{
    const std::string text = numbers.OneIn(5) ? Encoded(numbers, "UTF-8").c_str()
                                              : AnyText(numbers, numbers.Below(12)).c_str();
    trial->AddInput(text);
    const auto convert =
        numbers.OneIn(2) ? CodeSet_Utf8FormDToUtf8FormC : CodeSet_Utf8FormCToUtf8FormD;
    char *out = nullptr;
    size_t size = 0;
    trial->AddResult(convert(text.c_str(), text.size(), &out, &size));
    trial->TakeResult(out, size);
}

void EncodingNames(Numbers &numbers, Trial *trial)
{
    static const std::vector<std::string> NAMES = [] {
        std::vector<std::string> all = {"latin1", "windows-949", "Windows-1252", "8859_1", "x"};
#define ADD(value, constant, name, ...) all.push_back(name);
        ENCODINGS(ADD)
#undef ADD
        return all;
    }();
    Unicode_Shutdown(); // the result for a name may depend on earlier names
    std::string name = numbers.Of(NAMES);
    for (unsigned i = numbers.Below(4); i > 0 && !name.empty(); i--) {
        const size_t at = numbers.Below(name.size());
        switch (numbers.Below(4)) {
        case 0: name[at] = static_cast<char>(toupper(static_cast<unsigned char>(name[at]))); break;
        case 1: name.erase(at, 1); break;
        case 2: name.insert(at, 1, "-_ .:09aZ"[numbers.Below(9)]); break;
        default: name[at] = static_cast<char>(tolower(static_cast<unsigned char>(name[at])));
        }
    }
    trial->AddInput(name);
    const StringEncoding encoding = UnicodeIANALookup(name.c_str());
    trial->AddResult(encoding);
    trial->AddResult(Unicode_FindEncoding(name.c_str()));
    if (Unicode_IsEncodingValid(encoding)) {
        trial->AddResult(Unicode_EncodingEnumToName(encoding));
    }
}
