#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include <Lumo/AttrTable.h>
#include <Lumo/Clock.h>
#include <Lumo/KeyedCollection.h>
#include <Lumo/Lock.h>

#include "Thing.h"

namespace {

using Lumo::AttributeOp;
using Lumo::GenericIf;
using Lumo::GenericIfPtrInterface;
using Lumo::GenericTraits;
using Lumo::GenericValue;
using Lumo::LumoType;
using Lumo::Name;
using Lumo::OpNotSupportedException;
using Lumo::Ptr;
using Lumo::PtrInterface;
using Lumo::RangeException;
using Lumo::String;
using sample::Thing;
using sample::thing;
using testing::ElementsAre;
using testing::HasSubstr;

// An entity with one attribute of each kind.
class Box : public Lumo::Entity {
  LUMO_OBJECT(Box)

 public:
  Box(U16 size, Name name) : size_(size), name_(name) {}

  Name name() const override { return name_; }
  U16 size() const { return size_; }
  int weight() const { return weight_; }
  void weightIs(int weight) { weight_ = weight; }
  Ptr<Thing> content() const { return content_; }
  void contentIs(const Ptr<Thing>& content) { content_ = content; }
  U32 shake(U32 times, const String& how) {
    shaken_ += times;
    lastShake_ = how;
    return shaken_;
  }
  void reset() { shaken_ = 0; }
  Ptr<Thing> part(Name key) const { return parts_[key]; }
  void partIs(const Name& key, const Ptr<Thing>& part) { parts_.memberIs(key, part); }
  Ptr<Thing> partDel(const Name& key) { return parts_.memberDel(key); }

  struct Parts {
    using Iterator = Lumo::KeyedCollection<Name, Thing>::Iterator;
    using Key = Name;
    static Iterator start(const Box& box) { return box.parts_.iterator(); }
    static Iterator startAt(const Box& box, const Key& key) { return box.parts_.iterator(key); }
    static Ptr<Thing> value(const Iterator& iterator) { return iterator.ptr(); }
  };

 private:
  U16 size_;
  Name name_;
  int weight_ = 0;
  U32 shaken_ = 0;
  String lastShake_;
  Ptr<Thing> content_;
  Lumo::KeyedCollection<Name, Thing> parts_;
};

Ptr<Box> boxFactory(U16 size, Name name) {
  return Lumo::allocate<Box>(size, name);
}

constexpr auto boxAttributes = Lumo::attrTable(
    Lumo::readOnly<Box, &Box::size>(258, "size"),
    Lumo::readWrite<Box, &Box::weight, &Box::weightIs>(259, "weight"),
    Lumo::readWrite<Box, &Box::content, &Box::contentIs>(260, "content"),
    Lumo::function<Box, &Box::shake>(261, "shake"), Lumo::function<Box, &Box::reset>(262, "reset"),
    Lumo::described(263, "label", "sample::Label"),
    Lumo::with<Box, &Box::partDel>(
        Lumo::with<Box, &Box::partIs>(
            Lumo::with<Box, &Box::part>(
                Lumo::collection<Box, Box::Parts>(264, "part", &Thing::_lumoType),
                Lumo::opMemberRead),
            Lumo::opMemberIs),
        Lumo::opMemberDel));
constinit const LumoType Box::_lumoType("sample::Box", boxAttributes,
                                        Lumo::genericFunctions<Box, &boxFactory>());

template <class T>
T unwrapped(const GenericValue& value) {
  return GenericTraits<T>::unwrap(value);
}

template <class Action>
std::string refusal(Action action) {
  try {
    action();
  } catch (const Lumo::Exception& exception) {
    return exception.what();
  }
  ADD_FAILURE() << "not refused";
  return "";
}

TEST(GenericValue, NumbersFitWhereTheirValueDoes) {
  EXPECT_EQ(unwrapped<U16>(65535), 65535);
  EXPECT_EQ(unwrapped<U16>(U64(7)), 7);
  EXPECT_EQ(unwrapped<U32>(U16(7)), 7u);
  EXPECT_EQ(unwrapped<U64>(std::numeric_limits<U64>::max()), std::numeric_limits<U64>::max());
  EXPECT_EQ(unwrapped<int>(-5), -5);
  EXPECT_EQ(unwrapped<int>(U32(2147483647)), 2147483647);
}

TEST(GenericValue, NumbersThatDoNotFitAreRefused) {
  EXPECT_THROW(unwrapped<U16>(65536), RangeException);
  EXPECT_THROW(unwrapped<U16>(-1), RangeException);
  EXPECT_THROW(unwrapped<U32>(U64(1) << 32), RangeException);
  EXPECT_THROW(unwrapped<U64>(-1), RangeException);
  EXPECT_THROW(unwrapped<int>(U32(1) << 31), RangeException);
  EXPECT_THROW(unwrapped<int>(std::numeric_limits<U64>::max()), RangeException);
  EXPECT_THAT(refusal([] { unwrapped<U16>(70000); }), HasSubstr("70000 is out of range for U16"));
}

TEST(GenericValue, OtherTypesAreNotMixed) {
  EXPECT_TRUE(unwrapped<bool>(true));
  EXPECT_THROW(unwrapped<bool>(1), RangeException);
  EXPECT_THROW(unwrapped<U32>(true), RangeException);
  EXPECT_THROW(unwrapped<U32>("7"), RangeException);
  EXPECT_THROW(unwrapped<String>(7), RangeException);
  EXPECT_THROW(unwrapped<Ptr<Thing>>("thing"), RangeException);
  EXPECT_THROW(unwrapped<U32>(GenericValue()), RangeException);
  EXPECT_EQ(refusal([] { unwrapped<bool>("yes"); }), "expected a bool, got Lumo::String yes");
}

TEST(GenericValue, TextsAndNamesStandForEachOther) {
  EXPECT_EQ(unwrapped<Name>("ports"), Name("ports"));
  EXPECT_EQ(unwrapped<String>(Name("ports")), String("ports"));
  EXPECT_EQ(unwrapped<Name>(std::string()), Name());
}

TEST(GenericValue, ObjectsKeepTheirClassAndTheirConstness) {
  const auto object = thing("a");
  EXPECT_EQ(unwrapped<Ptr<Thing>>(object), object);
  EXPECT_EQ(unwrapped<Ptr<Thing const>>(object), object);
  EXPECT_EQ(unwrapped<Ptr<Lumo::Entity>>(object), object);
  const Ptr<Thing const> constant = object;
  EXPECT_EQ(unwrapped<Ptr<Thing const>>(constant), object);
  EXPECT_THROW(unwrapped<Ptr<Thing>>(constant), RangeException);
  EXPECT_THROW(unwrapped<Ptr<Lumo::Clock>>(object), RangeException);
  EXPECT_EQ(unwrapped<Thing*>(object), object.ptr());
  EXPECT_EQ(unwrapped<Ptr<Thing>>(nullptr), nullptr);
}

TEST(GenericValue, HoldsItsObject) {
  const auto object = thing();
  {
    const GenericValue value(object);
    EXPECT_EQ(object->references(), 2u);
  }
  EXPECT_EQ(object->references(), 1u);
}

TEST(GenericValue, NamesTheTypeOfWhatItHolds) {
  EXPECT_STREQ(GenericValue().typeName(), "void");
  EXPECT_STREQ(GenericValue(true).typeName(), "bool");
  EXPECT_STREQ(GenericValue(1).typeName(), "int");
  EXPECT_STREQ(GenericValue(U16(1)).typeName(), "U16");
  EXPECT_STREQ(GenericValue(U32(1)).typeName(), "U32");
  EXPECT_STREQ(GenericValue(U64(1)).typeName(), "U64");
  EXPECT_STREQ(GenericValue("a").typeName(), "Lumo::String");
  EXPECT_STREQ(GenericValue(Name("a")).typeName(), "Lumo::Name");
  EXPECT_STREQ(GenericValue(thing()).typeName(), "sample::Thing");
  EXPECT_STREQ(GenericValue(nullptr).typeName(), "Lumo::PtrInterface");
  int message = 0;
  EXPECT_STREQ(GenericValue(GenericValue::Opaque{&message, "a message"}).typeName(), "a message");
}

TEST(GenericValue, PrintsAsAPersonReadsIt) {
  EXPECT_EQ(GenericValue().strep(), "");
  EXPECT_EQ(GenericValue(false).strep(), "false");
  EXPECT_EQ(GenericValue(-3).strep(), "-3");
  EXPECT_EQ(GenericValue(Name("ports")).strep(), "ports");
  EXPECT_EQ(GenericValue(nullptr).strep(), "(null)");
  const auto object = thing("ports");
  std::ostringstream address;
  address << static_cast<const void*>(object.ptr());
  EXPECT_EQ(GenericValue(object).strep(), "sample::Thing(\"ports\")@" + address.str());
}

TEST(GenericIfPtrInterface, CarriesObjectsOfItsBase) {
  const auto object = thing();
  EXPECT_EQ(GenericIfPtrInterface<Lumo::Entity>::FromPtrInterface(object.ptr()).object().object,
            object);
  EXPECT_EQ(GenericIfPtrInterface<PtrInterface>::FromPtrInterface(nullptr).strep(), "(null)");
  EXPECT_EQ(GenericIfPtrInterface<PtrInterface>::FromStrRep("(null)").object().object, nullptr);
  EXPECT_THROW(GenericIfPtrInterface<Lumo::Entity>::FromStrRep("sample::Thing@0x1"),
               RangeException);
}

TEST(LumoType, DescribesTheBuiltInTypes) {
  EXPECT_STREQ(Lumo::Builtin<bool>::_lumoType.typeName(), "bool");
  EXPECT_STREQ(Lumo::Builtin<int>::_lumoType.typeName(), "int");
  EXPECT_STREQ(Lumo::Builtin<unsigned short>::_lumoType.typeName(), "U16");
  EXPECT_STREQ(Lumo::Builtin<unsigned int>::_lumoType.typeName(), "U32");
  EXPECT_STREQ(Lumo::Builtin<unsigned long long>::_lumoType.typeName(), "U64");
  EXPECT_STREQ(Lumo::Builtin<String>::_lumoType.typeName(), "Lumo::String");
  EXPECT_STREQ(Lumo::_lumoType_void.typeName(), "void");
  EXPECT_STREQ(Name::_lumoType.typeName(), "Lumo::Name");
  EXPECT_STREQ(Lumo::Clock::_lumoType.typeName(), "Lumo::Clock");
}

TEST(LumoType, FindsItsAttributesByNameAndById) {
  const Lumo::LumoAttr* const size = Box::_lumoType.attr("size");
  ASSERT_TRUE(size);
  EXPECT_EQ(size, Box::_lumoType.attr(258));
  EXPECT_EQ(size->attributeId(), 258);
  EXPECT_EQ(size->type(), &Lumo::Builtin<U16>::_lumoType);
  EXPECT_STREQ(size->typeName(), "U16");
  EXPECT_TRUE(size->offers(Lumo::opRead));
  EXPECT_FALSE(size->offers(Lumo::opWrite) || size->offers(-1) || size->offers(Lumo::opCount));
  EXPECT_EQ(Box::_lumoType.attr("siz"), nullptr);
  EXPECT_EQ(Box::_lumoType.attr(1), nullptr);
  const Lumo::LumoAttr* const label = Box::_lumoType.attr("label");
  EXPECT_STREQ(label->typeName(), "sample::Label");
  EXPECT_EQ(label->type(), nullptr);
  EXPECT_EQ(Box::_lumoType.attr("reset")->type(), &Lumo::_lumoType_void);
}

TEST(LumoType, TheFrameworksOwnTypesAreNotRegistered) {
  EXPECT_TRUE(Lumo::typeNodes().empty());
  EXPECT_EQ(Lumo::typeNode("Lumo::Entity"), nullptr);
  EXPECT_THROW(Lumo::genericNew("sample::Box", U16(1), "b"), RangeException);
}

struct GenericIfTest : testing::Test {
  Ptr<Box> box = boxFactory(12, "box");
  GenericIf view = Lumo::genericIf(box);
  GenericIf constView = Lumo::genericIf(Ptr<Box const>(box));

  GenericValue op(const char* attribute, int opId, std::vector<GenericValue> args = {}) {
    return view.op(*Box::_lumoType.attr(attribute), opId, args);
  }
};

TEST_F(GenericIfTest, ReadsAndWrites) {
  EXPECT_EQ(view.read("size").number(), 12u);
  view.write("weight", -7);
  EXPECT_EQ(box->weight(), -7);
  EXPECT_EQ(view.read("weight").strep(), "-7");
  const auto content = thing("content");
  view.write("content", content);
  EXPECT_EQ(box->content(), content);
  view.write("content", nullptr);
  EXPECT_EQ(box->content(), nullptr);
}

TEST_F(GenericIfTest, Calls) {
  EXPECT_EQ(Lumo::genericCall(box, "shake", U32(2), "gently").number(), 2u);
  EXPECT_EQ(Lumo::genericCall(box, "shake", 3, "hard").number(), 5u);
  EXPECT_TRUE(Lumo::genericCall(box, "reset").isVoid());
}

TEST_F(GenericIfTest, RefusesWhatTheTypeDoesNotOffer) {
  EXPECT_THROW(view.write("size", 1), OpNotSupportedException);
  EXPECT_THROW(view.call("size"), OpNotSupportedException);
  EXPECT_THROW(view.read("shake"), OpNotSupportedException);
  EXPECT_THROW(view.read("label"), OpNotSupportedException);
  EXPECT_THROW(view.read("nothing"), OpNotSupportedException);
  EXPECT_THROW(op("part", Lumo::opMemberEnq), OpNotSupportedException);
  EXPECT_THROW(op("size", -1), OpNotSupportedException);
  EXPECT_THROW(op("size", Lumo::opCount), OpNotSupportedException);
  EXPECT_EQ(refusal([&] { view.write("size", 1); }),
            "operation 1 is not supported on attribute size");
  EXPECT_EQ(refusal([&] { view.read("nothing"); }),
            "type sample::Box has no attribute \"nothing\"");
}

TEST_F(GenericIfTest, AForeignAttributeIsNotSupported) {
  const Lumo::LumoAttr foreign = Lumo::described(7, "foreign", "none");
  EXPECT_THROW(view.op(foreign, Lumo::opRead), OpNotSupportedException);
  const Lumo::LumoAttr readable = Lumo::readOnly<Box, &Box::weight>(7, "foreign");
  EXPECT_THROW(view.op(readable, Lumo::opRead), OpNotSupportedException);
  GenericValue result;
  bool resultSet = false;
  EXPECT_THROW(Box::_lumoType.attributeOp(box.ptr(), false, AttributeOp(nullptr, Lumo::opRead), {},
                                          &result, &resultSet),
               OpNotSupportedException);
  EXPECT_FALSE(resultSet);
}

// What counts is the number, as where a table was loaded twice.
TEST_F(GenericIfTest, AnAttributeOfAnotherTableIsTheOneWithItsNumber) {
  const Lumo::LumoAttr twins[] = {boxAttributes.front(), boxAttributes.back()};
  EXPECT_EQ(view.op(twins[0], Lumo::opRead, {}).number(), 12u);
  box->partIs("a", thing("a"));
  const std::vector<GenericValue> key = {Name("a")};
  EXPECT_EQ(unwrapped<Ptr<Thing>>(view.op(twins[1], Lumo::opMemberRead, key)), box->part("a"));
}

TEST_F(GenericIfTest, RefusesArgumentsThatDoNotFit) {
  EXPECT_THROW(view.write("weight", "heavy"), RangeException);
  EXPECT_THROW(view.call("reset", std::vector<GenericValue>{1}), RangeException);
  EXPECT_THROW(Lumo::genericCall(box, "shake", 1), RangeException);
  EXPECT_THROW(Lumo::genericCall(box, "shake", -1, "hard"), RangeException);
  EXPECT_EQ(box->weight(), 0);
  EXPECT_EQ(refusal([&] { Lumo::genericCall(box, "shake", 1); }), "expected 2 argument(s), got 1");
}

TEST_F(GenericIfTest, AConstViewChangesNothing) {
  EXPECT_TRUE(constView.isConst());
  EXPECT_EQ(constView.read("size").number(), 12u);
  EXPECT_THROW(constView.write("weight", 1), OpNotSupportedException);
  EXPECT_THROW(constView.call("reset"), OpNotSupportedException);
  EXPECT_THROW(constView.op(*Box::_lumoType.attr("part"), Lumo::opMemberDel,
                            std::vector<GenericValue>{Name("a")}),
               OpNotSupportedException);
  EXPECT_TRUE(constView.value().object().isConst);
  EXPECT_FALSE(view.value().object().isConst);
  EXPECT_EQ(view.value().object().object, box);
}

TEST_F(GenericIfTest, SaysWhetherThereIsAResult) {
  GenericValue result(5);
  bool resultSet = true;
  Box::_lumoType.attributeOp(box.ptr(), false,
                             AttributeOp(Box::_lumoType.attr("reset"), Lumo::opCall), {}, &result,
                             &resultSet);
  EXPECT_FALSE(resultSet);
  EXPECT_EQ(result.number(), 5u);
  Box::_lumoType.attributeOp(box.ptr(), true,
                             AttributeOp(Box::_lumoType.attr("size"), Lumo::opRead), {}, &result,
                             &resultSet);
  EXPECT_TRUE(resultSet);
  EXPECT_EQ(result.number(), 12u);
}

TEST_F(GenericIfTest, WorksOnTheMembersOfACollection) {
  const auto wheel = thing("wheel");
  op("part", Lumo::opMemberIs, {Name("wheel"), wheel});
  EXPECT_EQ(op("part", Lumo::opMemberRead, {Name("wheel")}).object().object, wheel);
  EXPECT_EQ(op("part", Lumo::opMemberDel, {Name("wheel")}).object().object, wheel);
  EXPECT_EQ(op("part", Lumo::opMemberRead, {Name("wheel")}).object().object, nullptr);
}

TEST_F(GenericIfTest, WalksACollection) {
  for (const char* name : {"a", "b", "c"}) box->partIs(name, thing(name));
  std::vector<std::string> keys;
  for (auto at = view.iterate("part"); at; ++at) {
    keys.push_back(at.key().text().stdString());
    EXPECT_EQ(at.object().object().object, box->part(at.key().text()));
  }
  EXPECT_THAT(keys, ElementsAre("a", "b", "c"));
  keys.clear();
  for (auto at = view.iterateFrom("part", "b"); at; ++at) {
    keys.push_back(at.key().text().stdString());
  }
  EXPECT_THAT(keys, ElementsAre("b", "c"));
  EXPECT_FALSE(view.iterateFrom("part", "z"));
}

TEST_F(GenericIfTest, AWalkKeepsTheOwnerAlive) {
  box->partIs("a", thing("a"));
  auto at = view.iterate("part");
  Box* const raw = box.ptr();
  box = nullptr;
  view = GenericIf(Ptr<PtrInterface>(thing()));
  constView = view;
  ASSERT_TRUE(at);
  EXPECT_EQ(raw->references(), 1u);
  ++at;
  EXPECT_FALSE(at);
}

TEST_F(GenericIfTest, ThereIsNoWalkOverAPlainAttribute) {
  EXPECT_FALSE(view.iterate("size"));
  EXPECT_FALSE(view.iterateFrom("size", 1));
  static constexpr Lumo::IteratorOps none{};
  const Lumo::IteratorOps* ops = &none;
  EXPECT_EQ(Box::_lumoType.iterator(box.ptr(), *Box::_lumoType.attr("size"), &ops), nullptr);
  EXPECT_EQ(Box::_lumoType.iteratorKey(box.ptr(), *Box::_lumoType.attr("size"), 1, &ops), nullptr);
  EXPECT_EQ(ops, &none);
}

TEST_F(GenericIfTest, MakesObjectsThroughTheFactory) {
  bool created = false;
  const std::vector<GenericValue> args{U16(3), "made"};
  const GenericValue made = Box::_lumoType.fromCtorArgs(&Box::_lumoType, args, &created);
  EXPECT_TRUE(created);
  const auto madeBox = unwrapped<Ptr<Box>>(made);
  EXPECT_EQ(madeBox->size(), 3);
  EXPECT_EQ(madeBox->name(), "made");
}

TEST_F(GenericIfTest, MakesNothingOfArgumentsThatDoNotFit) {
  const U64 before = Box::lumoAllocTrackTypeInfo_.allocations();
  bool created = false;
  for (const std::vector<GenericValue>& args :
       {std::vector<GenericValue>{}, {U16(3)}, {70000, "box"}, {"box", U16(3)}, {3, "box", 1}}) {
    EXPECT_THROW(Box::_lumoType.fromCtorArgs(&Box::_lumoType, args, &created), RangeException);
  }
  EXPECT_FALSE(created);
  EXPECT_EQ(Box::lumoAllocTrackTypeInfo_.allocations(), before);
}

TEST(Exception, CarriesItsTextAndNothingElse) {
  EXPECT_EQ(refusal([] { Lumo::throwNameInUseException("taken"); }), "taken");
  EXPECT_THROW(Lumo::throwNameInUseException("taken"), Lumo::NameInUseException);
  EXPECT_EQ(refusal([] { Lumo::throwRangeException("too far"); }), "too far");
  EXPECT_THROW(Lumo::throwOpNotSupportedException(AttributeOp(nullptr, 3)),
               OpNotSupportedException);
  EXPECT_EQ(refusal([] { Lumo::throwOpNotSupportedException(AttributeOp(nullptr, 3)); }),
            "operation 3 is not supported on attribute (none)");
  EXPECT_EQ(Lumo::ErrnoException("text", 22).errnoValue(), 22);
  EXPECT_EQ(RangeException("two\nlines").message(), String("two\nlines"));
}

TEST(GenericIfPtrTest, RefusesANullPointer) {
  EXPECT_THROW(Lumo::genericAttribute(Ptr<Thing>(), "name"), RangeException);
  EXPECT_THROW(Lumo::genericCall(Ptr<Thing const>(), "name"), RangeException);
  EXPECT_THROW(GenericIf(nullptr, false), RangeException);
}

TEST(GenericIteratorTest, AtItsEndHasNothingAndStays) {
  Lumo::GenericIterator none;
  ++none;
  EXPECT_FALSE(none);
  EXPECT_THROW(none.object(), RangeException);
  EXPECT_THROW(none.key(), RangeException);
}

TEST(GenericValueTest, ANegativeNumberIsNoLargeOne) {
  EXPECT_THROW(GenericValue(-1).number(), RangeException);
  EXPECT_EQ(GenericValue(0).number(), 0U);
  EXPECT_THROW(GenericTraits<U64>::unwrap(GenericValue(-1)), RangeException);
  EXPECT_EQ(GenericTraits<int>::unwrap(GenericValue(-1)), -1);
  EXPECT_THROW(GenericTraits<int>::unwrap(GenericValue(U32{0x80000000})), RangeException);
}

static_assert(!std::is_constructible_v<GenericValue, Thing*>);
static_assert(!std::is_constructible_v<GenericValue, const Thing*>);
static_assert(!std::is_constructible_v<GenericValue, void*>);
static_assert(std::is_constructible_v<GenericValue, const char*> &&
              std::is_constructible_v<GenericValue, char*>);

TEST(GenericValueTest, ReadsAsAPersonWritesIt) {
  EXPECT_EQ(GenericValue(true).strep(), "true");
  EXPECT_EQ(GenericValue(false).strep(), "false");
  EXPECT_EQ(GenericValue(-7).strep(), "-7");
  EXPECT_EQ(GenericValue(U64{1} << 63).strep(), "9223372036854775808");
  EXPECT_EQ(GenericValue("text").strep(), "text");
  EXPECT_EQ(GenericValue(nullptr).strep(), "(null)");
  EXPECT_EQ(GenericValue().strep(), "");
}

}  // namespace
