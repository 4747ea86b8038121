// Tests of property lists without memory: whichever block is refused, the call reports it, leaves
// nothing allocated, and does not change the list.
#include "allocations.h"
#include "cfTypes.h"
#include "propertyList.h"
#include "propertyLists.h"
#include "scarceNew.h"

#include <gtest/gtest.h>

using namespace pelago::platform;

namespace {

using Fault = PropertyListFault;

// A value of each kind, and texts that are too long for a string's inner buffer.
const std::string LONG(100, 'x');
const std::string XML =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?><!DOCTYPE plist SYSTEM 'a.dtd'><plist a='b'><dict>"
    "<key>a key that is longer than a short one</key><array><string>" +
    LONG + "&#13;" + LONG +
    "</string><integer>1</integer><real>1.5</real><true/><date>2020-01-02T03:04:05Z</date>"
    "<data>AAAAAAAAAAAAAAAAAAAA</data><dict><key>b</key><array/></dict></array></dict></plist>";

const std::string BINARY = BinaryList(
    {BinaryDict({1, 2}), BinaryAscii("a key that is longer than a short one"),
     BinaryArray({3, 4, 5, 6, 7, 8, 9, 10}), BinaryAscii(LONG),
     std::string("\x64\0\xE4\0\xE4\xD8\x3D\xDE\0", 9), "\x10\x05",
     std::string("\x23\x3F\xF8\0\0\0\0\0\0", 9), std::string("\x33\x3F\xF8\0\0\0\0\0\0", 9),
     BinaryHead(0x4, 20) + std::string(20, 'd'), "\x80\x07", BinaryDict({1, 3})});

// Runs the action with a number of blocks granted and all further blocks refused.  Returns the
// action's fault, and NoMemory for std::bad_alloc.
template <typename Action> Fault FaultWith(size_t granted, const Action &action, bool *showed)
{
    const ScarceNew alsoNew;
    const OutOfMemory memory(granted);
    Fault fault = Fault::NoMemory;
    try {
        fault = action();
    } catch (const std::bad_alloc &) { // counts as NoMemory
    }
    *showed = memory.Showed();
    return fault;
}

// Runs the action with ever more blocks until they are enough.  Returns their number.
template <typename Action> size_t BlocksFor(const Action &action)
{
    for (size_t granted = 0;; granted++) {
        const ptrdiff_t before = Allocations::Live();
        bool showed = false;
        const Fault fault = FaultWith(granted, action, &showed);
        EXPECT_EQ(Allocations::Live(), before) << granted;
        EXPECT_EQ(fault, showed ? Fault::NoMemory : Fault::None) << granted;
        if (!showed || testing::Test::HasFailure()) { return granted; }
    }
}

class PropertyListMemory : public testing::TestWithParam<std::string> {};

TEST_P(PropertyListMemory, IsNeededForReading)
{
    EXPECT_GT(BlocksFor([] { return PropertyList().Read(GetParam()); }), 20u);
    EXPECT_GT(BlocksFor([] {
                  CFTypeRef object = nullptr;
                  bool isBinary = false;
                  const Fault fault = PropertyListCopyObject(GetParam(), &object, &isBinary);
                  EXPECT_EQ(object != nullptr, fault == Fault::None);
                  CFOwned<CFTypeRef>(object).reset();
                  return fault;
              }),
              20u);
}

TEST_P(PropertyListMemory, IsNeededForWriting)
{
    PropertyList list;
    ASSERT_EQ(list.Read(GetParam()), Fault::None);
    EXPECT_GT(BlocksFor([&] {
                  std::string bytes;
                  return list.Write(&bytes);
              }),
              20u);
}

TEST_P(PropertyListMemory, IsNeededForAValue)
{
    PropertyList list;
    ASSERT_EQ(list.Read(GetParam()), Fault::None);
    const CFOwned<CFTypeRef> value(list.CopyValue("a key that is longer than a short one"));
    EXPECT_GT(BlocksFor([&] {
                  PropertyList other;
                  return other.SetValue("another key that is longer than a short one", value.get());
              }),
              5u);
}

TEST_P(PropertyListMemory, ThatIsMissingLeavesTheListAsItWas)
{
    PropertyList list;
    std::string before, after;
    ASSERT_EQ(list.Read(GetParam()), Fault::None);
    ASSERT_EQ(list.Write(&before), Fault::None);
    for (size_t granted = 0; granted < 20; granted++) {
        bool showed = false;
        const auto read = [&] { return list.Read(GetParam()); };
        EXPECT_EQ(FaultWith(granted, read, &showed), Fault::NoMemory);
    }
    ASSERT_EQ(list.Write(&after), Fault::None);
    EXPECT_EQ(after, before);
}

INSTANTIATE_TEST_SUITE_P(Forms, PropertyListMemory, testing::Values(XML, BINARY),
                         [](const auto &row) { return row.index == 0 ? "Xml" : "Binary"; });

} // namespace
