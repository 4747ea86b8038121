// Tests of the limits of property lists, with lists that are near them.
#include "propertyListForTests.h"

#include "cfTypes.h"
#include "propertyLists.h"

#include <pthread.h>

namespace {

TEST(PropertyListLimits, HoldForTheNesting)
{
    constexpr size_t ARRAYS = PROPERTY_LIST_MAX_DEPTH - 1; // the root is a level, too
    EXPECT_EQ(FaultOf(DeepXml(ARRAYS)), Fault::None);
    EXPECT_EQ(FaultOf(DeepXml(ARRAYS + 1)), Fault::TooDeep);
    EXPECT_EQ(FaultOf(DeepXml(1000000)), Fault::TooDeep);
    EXPECT_EQ(FaultOf("<plist>" + DeepXml(ARRAYS) + "</plist>"), Fault::None);
    EXPECT_EQ(FaultOf("<plist>" + DeepXml(ARRAYS + 1) + "</plist>"), Fault::TooDeep);
    EXPECT_EQ(FaultOf(Rewritten(DeepXml(ARRAYS))), Fault::None);
    EXPECT_EQ(FaultOf(DeepBinary(ARRAYS)), Fault::None);
    EXPECT_EQ(FaultOf(DeepBinary(ARRAYS + 1)), Fault::TooDeep);
    EXPECT_EQ(FaultOf(DeepBinary(30000)), Fault::TooDeep);
}

// A branch's depth is measured near the root; then the branch also hangs at the end of a long one.
TEST(PropertyListLimits, HoldForANestingThatIsReachedTwice)
{
    constexpr size_t HALF = PROPERTY_LIST_MAX_DEPTH / 2 + 10;
    std::vector<std::string> objects = {BinaryDict({1, 2, 3, 3 + HALF}), BinaryAscii("a"),
                                        BinaryAscii("b")};
    for (size_t i = 0; i < 2 * HALF; i++) {
        const size_t own = 3 + i;
        if (i + 1 == HALF) {
            objects.push_back(BinaryArray({}));
        } else {
            objects.push_back(BinaryArray({i + 1 == 2 * HALF ? 3 : own + 1}));
        }
    }
    EXPECT_EQ(FaultOf(BinaryList(objects)), Fault::TooDeep);
}

TEST(PropertyListLimits, HoldForReferencesThatMultiply)
{
    const std::string list = SelfMultiplyingBinary();
    EXPECT_LT(list.size(), 1000u);
    EXPECT_EQ(FaultOf(list), Fault::TooManyValues);
}

TEST(PropertyListLimits, HoldForBytesThatMultiply)
{
    constexpr size_t SIZE = 1 << 20;
    const std::vector<size_t> items(PROPERTY_LIST_MAX_EXPANDED_BYTES / SIZE + 1, 3);
    const std::string block = BinaryAscii(std::string(SIZE, 'x'));
    EXPECT_EQ(FaultOf(BinaryWithValue(BinaryArray(items), {block})), Fault::TooLarge);
}

TEST(PropertyListLimits, HoldForTheNumberOfValues)
{
    const std::string xml =
        "<array>" + Repeat("<true/>", PROPERTY_LIST_MAX_XML_VALUES) + "</array>";
    EXPECT_EQ(FaultOf(XmlWithValue(xml)), Fault::TooManyValues);
    const std::vector<size_t> items(PROPERTY_LIST_MAX_BINARY_VALUES, 1);
    EXPECT_EQ(FaultOf(BinaryWithValue(BinaryArray(items))), Fault::TooManyValues);
}

TEST(PropertyListLimits, AreTheSameForWriting)
{
    CFOwned<CFMutableArrayRef> deep(CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
    for (size_t i = 0; i + 1 < PROPERTY_LIST_MAX_DEPTH; i++) {
        CFOwned<CFMutableArrayRef> outer(CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
        CFArrayAppendValue(outer.get(), deep.get());
        deep = std::move(outer);
    }
    PropertyList list;
    EXPECT_EQ(list.SetValue("k", deep.get()), Fault::None);
    std::string bytes;
    EXPECT_EQ(list.Write(&bytes), Fault::TooDeep) << "with the dictionary it is one too many";
    const CFOwned<CFStringRef> large(
        CFStringCreateWithText(std::string(PROPERTY_LIST_MAX_BYTES, 'x')));
    EXPECT_EQ(list.SetValue("k", large.get()), Fault::None);
    EXPECT_EQ(list.Write(&bytes), Fault::TooLarge);
}

TEST(PropertyListLimits, AnArrayInItselfIsRefused)
{
    CFOwned<CFMutableArrayRef> array(CFArrayCreateMutable(nullptr, 0, nullptr));
    CFArrayAppendValue(array.get(), array.get());
    EXPECT_EQ(PropertyList().SetValue("k", array.get()), Fault::TooDeep);
    for (int i = 0; i < 9; i++) {
        CFArrayAppendValue(array.get(), array.get());
    }
    EXPECT_EQ(PropertyList().SetValue("k", array.get()), Fault::TooDeep);
}

struct LargeCase {
    const char *name;
    std::string (*make)();
};
class PropertyListLarge : public testing::TestWithParam<LargeCase> {};

TEST_P(PropertyListLarge, IsReadAndWritten)
{
    const std::string bytes = GetParam().make();
    PropertyList list;
    ASSERT_EQ(list.Read(bytes), Fault::None);
    ASSERT_EQ(list.SetValue("added", kCFBooleanTrue), Fault::None);
    const std::string written = Written(list);
    EXPECT_EQ(ValueIn(written, "added").get(), kCFBooleanTrue);
}

std::string LargeXmlArray()
{
    std::string items;
    for (int i = 0; i < 300000; i++) {
        items += "<integer>" + std::to_string(i) + "</integer>";
    }
    return XmlWithValue("<array>" + items + "</array>");
}
std::string LargeXmlDictionary()
{
    std::string pairs;
    for (int i = 0; i < 200000; i++) {
        pairs += "<key>key " + std::to_string(i) + "</key><string>value</string>";
    }
    return "<dict>" + pairs + "</dict>";
}
std::string LargeXmlText()
{
    return XmlWithValue("<string>" + std::string(10000000, 'x') + "</string>");
}
std::string LargeBinaryText() { return BinaryWithValue(BinaryAscii(std::string(10000000, 'x'))); }
std::string LargeBinaryArray()
{
    std::vector<size_t> items;
    std::vector<std::string> strings;
    for (size_t i = 0; i + 10 < PROPERTY_LIST_MAX_BINARY_VALUES; i++) {
        items.push_back(3 + i);
        strings.push_back(
            BinaryAscii("a value of fifty bytes, and here " + std::to_string(1000000000 + i)));
    }
    return BinaryWithValue(BinaryArray(items), strings);
}
std::string LargeBinaryDictionary()
{
    std::vector<size_t> keys, values;
    std::vector<std::string> objects = {""};
    for (size_t i = 0; i < PROPERTY_LIST_MAX_BINARY_VALUES / 2 - 10; i++) {
        keys.push_back(objects.size());
        objects.push_back(BinaryAscii("key " + std::to_string(i)));
        values.push_back(1);
    }
    keys.insert(keys.end(), values.begin(), values.end());
    objects[0] = BinaryDict(keys);
    return BinaryList(objects);
}
INSTANTIATE_TEST_SUITE_P(Files, PropertyListLarge,
                         testing::Values(LargeCase{"XmlArray", LargeXmlArray},
                                         LargeCase{"XmlDictionary", LargeXmlDictionary},
                                         LargeCase{"XmlText", LargeXmlText},
                                         LargeCase{"BinaryText", LargeBinaryText},
                                         LargeCase{"BinaryArray", LargeBinaryArray},
                                         LargeCase{"BinaryDictionary", LargeBinaryDictionary}),
                         [](const auto &row) { return row.param.name; });

// Lists are nested as deeply as the limit allows, and the thread's stack is one of the smallest in
// use.
TEST(PropertyListLimits, AreSafeOnASmallStack)
{
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 512 << 10), 0);
    const auto work = [](void *) -> void * {
        for (const std::string &bytes :
             {DeepXml(PROPERTY_LIST_MAX_DEPTH - 1), DeepBinary(PROPERTY_LIST_MAX_DEPTH - 1)}) {
            PropertyList list;
            std::string written;
            if (list.Read(bytes) != Fault::None || list.Write(&written) != Fault::None) {
                return nullptr;
            }
            if (!CFEqual(Values(list).get(), Values(list).get())) { return nullptr; }
        }
        return const_cast<char *>("done");
    };
    pthread_t thread;
    void *result = nullptr;
    ASSERT_EQ(pthread_create(&thread, &attributes, work, nullptr), 0);
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_NE(result, nullptr);
    pthread_attr_destroy(&attributes);
}

} // namespace
