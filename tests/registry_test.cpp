// Class registry: word matching, creation protocol, properties of every kind.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stream/base/reflect/IClass.h"
#include "tests/LogCapture.h"

using namespace kiv::base;

namespace {

struct Shape : public Object {
  virtual int Corners() const = 0;
};

struct Square : public Shape {
  int Corners() const override { return 4; }
  int side = 1;
  std::string label = "sq";
  Fraction rate{30, 1};
  bool SetSide(int v) {
    if (v <= 0) return false;
    side = v;
    return true;
  }
  long long Area() { return static_cast<long long>(side) * side; }
  int Times(int k) { return side * k; }
  bool Init(AttrSet& ap) {
    seen = ap.GetOrDef("seen", "");
    return true;
  }
  std::string seen;
};

struct Triangle : public Shape {
  int Corners() const override { return 3; }
};

// Not a Shape: a search for a Shape must pass over it.
struct Plain : public Object {};

// Refuses configuration when asked to.
struct Picky : public Shape {
  int Corners() const override { return 0; }
  bool configure(AttrSet& ap) override { return ap.Get("refuse") == nullptr; }
  static int alive;
  Picky() { ++alive; }
  ~Picky() override { --alive; }
};
int Picky::alive = 0;

struct WithArgs : public Shape {
  WithArgs(int a, int b) : sum(a + b) {}
  int Corners() const override { return sum; }
  int sum;
};

// A class registered with no properties of its own reaches those of its registered base.
struct BigSquare : public Square {};

int registrations = 0;

void RegisterTestShapes() {
  ++registrations;
  ReflectClass<Shape>("TShape-test-shape", {}, false, "test", 1, "t", "a");
  ReflectClass<Plain>("TPlain-test-shape-round", {}, true, "test", 1, "t", "a");
  ReflectClass<Triangle>("TTriangle-test-shape-round-tri", {}, true, "test", 1, "t", "a");
  ReflectClass<Square>("TSquare-test-shape-quad",
                       {TProperty<Square>::Member("side", &Square::side),
                        TProperty<Square>::Member("label", &Square::label),
                        TProperty<Square>::Member("rate", &Square::rate),
                        TProperty<Square>::Setter("setSide", &Square::SetSide),
                        TProperty<Square>::Getter("area", &Square::Area),
                        TProperty<Square>::Getter("times", &Square::Times),
                        TProperty<Square>::Setter("init", &Square::Init)},
                       true, "test", 1, "t", "a");
  ReflectClass<Picky>("TPicky-test-picky", {}, true, "test", 1, "t", "a");
  ReflectClass<WithArgs, int, int>("TWithArgs-test-args", {}, true, "test", 1, "t", "a");
  ReflectClass<BigSquare>("TBigSquare-test-bigsquare", {}, true, "test", 1, "t", "a");
}

class Registry : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!IClass::Find("TShape-test-shape", true)) RegisterTestShapes();
  }
  template <class T>
  T* make(const char* type) {
    AttrSet ap;
    Object::AttrSetInit(ap, nullptr, type);
    return Object::New<T>(ap);
  }
};

TEST_F(Registry, WordsMatchInAnyPositionInRegistrationOrder) {
  IClass::Iterator it = 0;
  IClass* a = IClass::Find("round-test", it);
  ASSERT_NE(a, nullptr);
  EXPECT_STREQ(a->Name(), "TPlain-test-shape-round");
  IClass* b = IClass::Find("round-test", it);
  ASSERT_NE(b, nullptr);
  EXPECT_STREQ(b->Name(), "TTriangle-test-shape-round-tri");
  EXPECT_EQ(IClass::Find("round-test", it), nullptr);

  EXPECT_STREQ(IClass::Find("QUAD-Test", false)->Name(), "TSquare-test-shape-quad");
  EXPECT_EQ(IClass::Find("test-quad-nothing", false), nullptr);
  EXPECT_EQ(IClass::Find("test-shape", true), nullptr) << "exact search needs the whole name";
  EXPECT_NE(IClass::Find("tshape-test-shape", true), nullptr);
}

TEST_F(Registry, FirstCreatableClassWithTheWantedBaseWins) {
  // "test-shape" reaches the abstract TShape first, then TPlain (no Shape), then TTriangle.
  Shape* s = make<Shape>("test-shape");
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->Corners(), 3);
  delete s;
  // With Object as the wanted base, TPlain is the first that can be created.
  Object* o = make<Object>("test-shape");
  ASSERT_NE(o, nullptr);
  EXPECT_NE(dynamic_cast<Plain*>(o), nullptr);
  delete o;
}

TEST_F(Registry, MissingTypeOrClassIsLoggedAndNull) {
  LogCapture log;
  AttrSet none;
  EXPECT_EQ(Object::New<Object>(none), nullptr);
  EXPECT_TRUE(log.Has("!type"));
  EXPECT_EQ(make<Object>("test-unheard-of"), nullptr);
  EXPECT_TRUE(log.Has("test-unheard-of"));
}

TEST_F(Registry, FailedConfigureDestroysTheObject) {
  AttrSet ap("refuse");
  Object::AttrSetInit(ap, nullptr, "test-picky");
  EXPECT_EQ(Object::New<Shape>(ap), nullptr);
  EXPECT_EQ(Picky::alive, 0);
  Shape* ok = make<Shape>("test-picky");
  ASSERT_NE(ok, nullptr);
  EXPECT_EQ(Picky::alive, 1);
  delete ok;
}

TEST_F(Registry, ConstructorArgumentsMustMatchTheCreationSignature) {
  AttrSet ap;
  Object::AttrSetInit(ap, nullptr, "test-args");
  Shape* s = Object::New<Shape>(ap, 2, 5);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->Corners(), 7);
  delete s;
  LogCapture log(kiv::dbg::I);
  EXPECT_EQ(Object::New<Shape>(ap), nullptr);
  EXPECT_EQ(Object::New<Shape>(ap, 2LL, 5), nullptr);
  EXPECT_TRUE(log.Has("!TypeNewMatch<P...>()"));
}

TEST_F(Registry, AttributesOfTheSearchSetPropertiesAtCreation) {
  AttrSet ap("side=7;label=\"big; one\";unknown=1");
  Object::AttrSetInit(ap, nullptr, "test-quad");
  auto* sq = Object::New<Square>(ap);
  ASSERT_NE(sq, nullptr);
  EXPECT_EQ(sq->side, 7);
  EXPECT_EQ(sq->label, "big; one");
  delete sq;
}

TEST_F(Registry, PropertiesOfEveryKind) {
  auto* sq = make<Square>("test-quad");
  ASSERT_NE(sq, nullptr);
  // member: typed, as text, across integer types
  EXPECT_TRUE(sq->Set("side", 3));
  EXPECT_EQ(sq->side, 3);
  EXPECT_TRUE(sq->setString("side", "0x10"));
  EXPECT_EQ(sq->side, 16);
  EXPECT_FALSE(sq->setString("side", "ten"));
  long long wide = 0;
  EXPECT_TRUE(sq->GetIntT("side", wide));
  EXPECT_EQ(wide, 16);
  std::string text;
  EXPECT_TRUE(sq->getString("rate", text));
  EXPECT_EQ(text, "30/1");
  EXPECT_TRUE(sq->setString("rate", "30000/1001"));
  EXPECT_EQ(sq->rate, Fraction(30000, 1001));
  // setter: write only, its result counts
  EXPECT_TRUE(sq->Set("setSide", 5));
  EXPECT_EQ(sq->side, 5);
  EXPECT_FALSE(sq->Set("setSide", -1));
  int dummy = 0;
  EXPECT_FALSE(sq->Get("setSide", dummy));
  // getter without and with an argument
  long long area = 0;
  EXPECT_TRUE(sq->Get("area", area));
  EXPECT_EQ(area, 25);
  EXPECT_FALSE(sq->Set("area", 1));
  int times = 0;
  EXPECT_TRUE(sq->Run("times", times, 3));
  EXPECT_EQ(times, 15);
  // a setter taking an attribute set, typed and from text
  AttrSet init("seen=yes");
  EXPECT_TRUE(sq->Set("init", init));
  EXPECT_EQ(sq->seen, "yes");
  EXPECT_TRUE(sq->setString("init", "seen=text"));
  EXPECT_EQ(sq->seen, "text");
  EXPECT_FALSE(sq->HasProperty("nothing"));
  delete sq;
}

TEST_F(Registry, ClassWithoutOwnPropertiesReachesThoseOfItsBase) {
  auto* big = make<BigSquare>("test-bigsquare");
  ASSERT_NE(big, nullptr);
  EXPECT_TRUE(big->Set("side", 9));
  EXPECT_EQ(big->side, 9);
  std::vector<std::string> names;
  big->getPropertyNameList(names);
  EXPECT_EQ(names.size(), 7u);
  delete big;
}

TEST_F(Registry, SecondRegistrationAddsNoClass) {
  const size_t before = IClass::Globle().size();
  IClass* first = IClass::Find("TSquare-test-shape-quad", true);
  RegisterTestShapes();
  EXPECT_EQ(IClass::Globle().size(), before);
  EXPECT_EQ(IClass::Find("TSquare-test-shape-quad", true), first);
  EXPECT_EQ(first->Properties().size(), 7u);
  auto* sq = make<Square>("test-quad");
  ASSERT_NE(sq, nullptr) << "the constructor is installed again";
  delete sq;
}

TEST_F(Registry, NamedObjectIsFoundBeforeANewOne) {
  AttrSet ap;
  Object::AttrSetInit(ap, nullptr, "test-quad", "the-square");
  auto* a = Object::New<Square>(ap);
  ASSERT_NE(a, nullptr);
  AttrSet again("side=12");
  Object::AttrSetInit(again, nullptr, "test-quad", "the-square");
  auto* b = Object::New<Square>(again);
  EXPECT_EQ(a, b);
  EXPECT_EQ(a->side, 12);
  delete a;
  EXPECT_EQ(IClass::FindBeforeNew("the-square"), nullptr);
}

TEST_F(Registry, ObjectTextFormRoundTrips) {
  auto* sq = make<Square>("test-quad");
  ASSERT_NE(sq, nullptr);
  sq->side = 4;
  sq->label = "a=b;c";
  const std::string text = IAttributes::toString(*sq);
  auto* other = make<Square>("test-quad");
  ASSERT_TRUE(IAttributes::fromString(*other, text.c_str()));
  EXPECT_EQ(other->side, 4);
  EXPECT_EQ(other->label, "a=b;c");
  delete sq;
  delete other;
}

}  // namespace
