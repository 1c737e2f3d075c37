// Class registry: word matching, creation protocol, properties of every kind.
#include <gtest/gtest.h>

#include <string>

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
  std::string label = "sq", seen;
  Fraction rate{30, 1};
  bool SetSide(int v) { return v > 0 && (side = v) > 0; }
  long long Area() { return static_cast<long long>(side) * side; }
  bool Init(AttrSet& ap) { return !(seen = ap.GetOrDef("seen", "")).empty(); }
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

void RegisterTestShapes() {
  ReflectClass<Shape>("TShape-test-shape", {}, false, "test", 1, "t", "a");
  ReflectClass<Plain>("TPlain-test-shape-round", {}, true, "test", 1, "t", "a");
  ReflectClass<Triangle>("TTriangle-test-shape-round-tri", {}, true, "test", 1, "t", "a");
  ReflectClass<Square>("TSquare-test-shape-quad",
                       {TProperty<Square>::Member("side", &Square::side),
                        TProperty<Square>::Member("label", &Square::label),
                        TProperty<Square>::Member("rate", &Square::rate),
                        TProperty<Square>::Setter("setSide", &Square::SetSide),
                        TProperty<Square>::Getter("area", &Square::Area),
                        TProperty<Square>::Setter("init", &Square::Init)},
                       true, "test", 1, "t", "a");
  ReflectClass<Picky>("TPicky-test-picky", {}, true, "test", 1, "t", "a");
  ReflectClass<WithArgs, int, int>("TWithArgs-test-args", {}, true, "test", 1, "t", "a");
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

TEST_F(Registry, WordsMatchInAnyPositionAndTheFirstCreatableClassWithTheWantedBaseWins) {
  IClass::Iterator it = 0;
  for (const char* want : {"TPlain-test-shape-round", "TTriangle-test-shape-round-tri"}) {
    IClass* c = IClass::Find("round-test", it);
    ASSERT_NE(c, nullptr);
    EXPECT_STREQ(c->Name(), want) << "in registration order";
  }
  EXPECT_EQ(IClass::Find("round-test", it), nullptr);
  EXPECT_STREQ(IClass::Find("QUAD-Test", false)->Name(), "TSquare-test-shape-quad");
  EXPECT_EQ(IClass::Find("test-quad-nothing", false), nullptr);
  EXPECT_EQ(IClass::Find("test-shape", true), nullptr) << "exact search needs the whole name";
  EXPECT_NE(IClass::Find("tshape-test-shape", true), nullptr);

  // "test-shape" reaches the abstract TShape first, then TPlain (no Shape), then TTriangle.
  Shape* s = make<Shape>("test-shape");
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->Corners(), 3);
  delete s;
  // With Object as the wanted base, TPlain is the first that can be created.
  Object* o = make<Object>("test-shape");
  EXPECT_NE(dynamic_cast<Plain*>(o), nullptr);
  delete o;
}

TEST_F(Registry, CreationFailuresLeaveNoObject) {
  LogCapture quiet;
  AttrSet none;
  EXPECT_EQ(Object::New<Object>(none), nullptr);
  EXPECT_EQ(make<Object>("test-unheard-of"), nullptr);

  AttrSet refuse("refuse");
  Object::AttrSetInit(refuse, nullptr, "test-picky");
  EXPECT_EQ(Object::New<Shape>(refuse), nullptr);
  EXPECT_EQ(Picky::alive, 0) << "a failed configure destroys the object";
  Shape* ok = make<Shape>("test-picky");
  EXPECT_EQ(Picky::alive, 1);
  delete ok;

  // Constructor arguments must match the creation signature exactly.
  AttrSet args;
  Object::AttrSetInit(args, nullptr, "test-args");
  Shape* s = Object::New<Shape>(args, 2, 5);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->Corners(), 7);
  delete s;
  EXPECT_EQ(Object::New<Shape>(args), nullptr);
  EXPECT_EQ(Object::New<Shape>(args, 2LL, 5), nullptr);
}

TEST_F(Registry, PropertiesOfEveryKind) {
  AttrSet ap("side=7;label=\"big; one\";unknown=1");
  Object::AttrSetInit(ap, nullptr, "test-quad");
  auto* sq = Object::New<Square>(ap);
  ASSERT_NE(sq, nullptr);
  EXPECT_TRUE(sq->side == 7 && sq->label == "big; one") << "attributes of the search set properties at creation";
  // member: typed, as text, across integer types
  EXPECT_TRUE(sq->Set("side", 3) && sq->side == 3);
  EXPECT_TRUE(sq->setString("side", "0x10"));
  EXPECT_FALSE(sq->setString("side", "ten"));
  long long wide = 0;
  EXPECT_TRUE(sq->GetIntT("side", wide) && wide == 16);
  std::string text;
  EXPECT_TRUE(sq->getString("rate", text) && text == "30/1");
  EXPECT_TRUE(sq->setString("rate", "30000/1001") && sq->rate == Fraction(30000, 1001));
  // setter: write only, its result counts
  int n = 0;
  EXPECT_TRUE(sq->Set("setSide", 5) && sq->side == 5);
  EXPECT_FALSE(sq->Set("setSide", -1) || sq->Get("setSide", n));
  // getter
  long long area = 0;
  EXPECT_TRUE(sq->Get("area", area) && area == 25);
  EXPECT_FALSE(sq->Set("area", 1));
  // a setter taking an attribute set, typed and from text
  AttrSet init("seen=yes");
  EXPECT_TRUE(sq->Set("init", init) && sq->seen == "yes");
  EXPECT_TRUE(sq->setString("init", "seen=text") && sq->seen == "text");
  EXPECT_FALSE(sq->HasProperty("nothing"));
  delete sq;
}

TEST_F(Registry, SecondRegistrationAddsNoClassAndANamedObjectIsFoundBeforeANewOne) {
  const size_t before = IClass::Globle().size();
  RegisterTestShapes();
  EXPECT_EQ(IClass::Globle().size(), before);
  AttrSet ap;
  Object::AttrSetInit(ap, nullptr, "test-quad", "the-square");
  auto* a = Object::New<Square>(ap);
  ASSERT_NE(a, nullptr) << "the constructor is installed again";
  AttrSet again("side=12");
  Object::AttrSetInit(again, nullptr, "test-quad", "the-square");
  EXPECT_EQ(Object::New<Square>(again), a);
  EXPECT_EQ(a->side, 12);
  delete a;
  EXPECT_EQ(IClass::FindBeforeNew("the-square"), nullptr);
}

}  // namespace
