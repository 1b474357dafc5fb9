#include "commons/exceptions.h"

#include <csignal>
#include <sstream>
#include <type_traits>

#include "commons/ProgramTerminatedException.h"
#include "commons/log.h"
#include "support.h"

DECLARE_ERROR_TAG(OuterError, "Outer: %1%");
DECLARE_ERROR_TAG(MiddleError, "Middle");
DECLARE_ERROR_TAG(InnerError, "First %1%, then %2%");

class TagOwner {
 public:
  static ErrorTag Failed;
};
DESCRIBE_ERROR_TAG(TagOwner::Failed, "%2% before %1%");

namespace {

Exc<&InnerError> makeInner() {
  return Exc<&InnerError>("void inner()", "inner.cpp", 3) % "one" % 2;
}

/// An exception with two causes, whose own objects do not exist any more.
Exc<&OuterError> makeChain() {
  try {
    try {
      throw makeInner();
    } catch (const ExTraceable& e) {
      throw Exc<&MiddleError>(e, "void middle()", "middle.cpp", 2);
    }
  } catch (const ExTraceable& e) {
    return Exc<&OuterError>(e, "void outer()", "outer.cpp", 1) % "text";
  }
}

/// Notes each call with its argument; ids with their length.
class RecordingVisitor : public ExInfoVisitor {
 public:
  void setCode(const std::string& code) override { calls.push_back("code " + code); }
  void setId(const std::string& id) override {
    calls.push_back("id of " + std::to_string(id.size()));
    ids.push_back(id);
  }
  void setMessage(const std::string& message) override { calls.push_back("message " + message); }
  void setContext(const std::string& context) override { calls.push_back("context " + context); }
  void setFile(const std::string& file) override { calls.push_back("file " + file); }
  void setLine(int line) override { calls.push_back("line " + std::to_string(line)); }
  void advanceToInnerException() override { calls.push_back("inner"); }
  void setSeverity(int n) override { calls.push_back("severity " + std::to_string(n)); }

  std::vector<std::string> calls;
  std::vector<std::string> ids;
};

RecordingVisitor visit(const ExTraceable& error) {
  RecordingVisitor visitor;
  error.accept(visitor);
  return visitor;
}

std::vector<std::string> idsOf(const ExTraceable& error) {
  return visit(error).ids;
}

/// A "message" element that was filled from `error`, as text.
std::string asXml(const ExTraceable& error) {
  tXmlDtmDocument document;
  document.initNewDoc("message");
  XmlMsgFormatter formatter(document, document.root());
  error.accept(formatter);
  std::ostringstream text;
  document.saveToStream(text);
  return text.str();
}

}  // namespace

static_assert(!std::is_base_of_v<ExTraceable, MigrationTerminatedException>,
              "a stop must pass the handlers for failures");
static_assert(std::is_base_of_v<std::runtime_error, MigrationTerminatedException>);
static_assert(!std::is_same_v<Exc<&OuterError>, Exc<&InnerError>>,
              "each tag makes a type of its own");

TEST(ExceptionTest, IsVisitedPositionFirstThenCodeIdSeverityAndMessage) {
  EXPECT_THAT(
      visit(makeInner()).calls,
      testing::ElementsAre("context void inner()", "file inner.cpp", "line 3", "code InnerError",
                           "id of 37", "severity 3", "message First one, then 2"));
}

TEST(ExceptionTest, IsVisitedWithItsCausesOutermostFirst) {
  EXPECT_THAT(visit(makeChain()).calls,
              testing::ElementsAre(
                  "context void outer()", "file outer.cpp", "line 1", "code OuterError", "id of 37",
                  "severity 3", "message Outer: text", "inner", "context void middle()",
                  "file middle.cpp", "line 2", "code MiddleError", "id of 37", "severity 3",
                  "message Middle", "inner", "context void inner()", "file inner.cpp", "line 3",
                  "code InnerError", "id of 37", "severity 3", "message First one, then 2"));
}

TEST(ExceptionTest, OfTheBaseClassesHasNoPosition) {
  EXPECT_THAT(visit(ExTraceable("Code", "text")).calls,
              testing::ElementsAre("code Code", "id of 37", "severity 3", "message text"));
  EXPECT_THAT(visit(ExTaggedIncludable(ExTraceable("In", "inner"), "Out", "outer")).calls,
              testing::ElementsAre("code Out", "id of 37", "severity 3", "message outer", "inner",
                                   "code In", "id of 37", "severity 3", "message inner"));
}

TEST(ExceptionTest, IsRenderedAsOneBlockOfTextWithTheWholeId) {
  const Exc<& InnerError> error = makeInner();
  ASSERT_EQ(error.id().size(), 37u);
  EXPECT_EQ(error.id().back(), '\0');
  EXPECT_EQ(formatPlainTextMessage(error),
            "InnerError[" + error.id() + "]: First one, then 2 [inner.cpp:3]\nvoid inner()");
}

TEST(ExceptionTest, WithTwoCausesIsRenderedAsThreeBlocksOfText) {
  const Exc<& OuterError> error = makeChain();
  const std::vector<std::string> ids = idsOf(error);
  ASSERT_EQ(ids.size(), 3u);
  EXPECT_EQ(formatPlainTextMessage(error),
            "OuterError[" + ids[0] + "]: Outer: text [outer.cpp:1]\nvoid outer()" +
                "\nInner exception:\n" + "MiddleError[" + ids[1] +
                "]: Middle [middle.cpp:2]\nvoid middle()" + "\nInner exception:\n" + "InnerError[" +
                ids[2] + "]: First one, then 2 [inner.cpp:3]\nvoid inner()");
}

TEST(ExceptionTest, IsRenderedAsXmlWithTheCausesNestedAndWithoutPositions) {
  const Exc<& OuterError> error = makeChain();
  const std::vector<std::string> ids = idsOf(error);
  // The zero byte at the end of an id cannot be part of XML.
  const auto head = [&](const char* code, int i) {
    return std::string("<message code=\"") + code + "\" id=\"" +
           ids[static_cast<std::size_t>(i)].c_str() + "\" severity=\"error\">";
  };
  EXPECT_EQ(asXml(error),
            savedXml(head("OuterError", 0) + "<description>Outer: text</description>" +
                     head("MiddleError", 1) + "<description>Middle</description>" +
                     head("InnerError", 2) +
                     "<description>First one, then 2</description></message></message></message>"));
}

TEST(ExceptionTest, EscapesItsMessageInXml) {
  const Exc<& OuterError> error = Exc<&OuterError>(HERE) % "<a> & \"b\"";
  EXPECT_THAT(asXml(error),
              testing::HasSubstr("<description>Outer: &lt;a&gt; &amp; \"b\"</description>"));
}

TEST(XmlMsgFormatterTest, WritesWarningForSeverityFourAndErrorForAllOthers) {
  for (const int severity : {0, 1, 2, 3, 4, 5, -1}) {
    SCOPED_TRACE(severity);
    tXmlDtmDocument document;
    document.initNewDoc("message");
    XmlMsgFormatter(document, document.root()).setSeverity(severity);
    EXPECT_EQ(document.getAttribute(document.root(), "severity"),
              severity == 4 ? "warning" : "error");
  }
}

TEST(ExceptionTest, ShowsItsMessageThroughEachBaseAndNeverTheCode) {
  const Exc<& InnerError> error = makeInner();
  const std::string expected = "First one, then 2";
  EXPECT_EQ(error.what(), expected);
  EXPECT_EQ(static_cast<const ExTaggedIncludable&>(error).what(), expected);
  EXPECT_EQ(static_cast<const ExTraceable&>(error).what(), expected);
  EXPECT_EQ(static_cast<const std::runtime_error&>(error).what(), expected);
  EXPECT_EQ(static_cast<const std::exception&>(error).what(), expected);
}

TEST(ExceptionTest, BindsItsArgumentsByPlaceholderNumber) {
  const Exc<& TagOwner::Failed> error = Exc<&TagOwner::Failed>(HERE) % 1 % std::string("50%2%");
  EXPECT_STREQ(error.what(), "50%2% before 1");
}

TEST(ExceptionTest, NamesTheOwningClassInItsCode) {
  const Exc<& TagOwner::Failed> error = Exc<&TagOwner::Failed>(HERE) % 1 % 2;
  EXPECT_EQ(error.code(), "TagOwner::Failed");
  EXPECT_EQ(makeInner().code(), "InnerError");
}

TEST(ExceptionTest, NamesTheRaisingFunctionAndTheSourceFileWithoutItsDirectories) {
  const Exc<&MiddleError> error(HERE);
  const std::string line = std::to_string(__LINE__ - 1);
  EXPECT_THAT(visit(error).calls,
              testing::IsSupersetOf({std::string("context ") + __PRETTY_FUNCTION__,
                                     std::string("file exceptions_test.cpp"), "line " + line}));
}

TEST(ExceptionTest, NamesThePlaceOfACallerThatItIsRaisedFor) {
  const Place place = {"void caller()", "caller.cpp", 7};
  const auto isThere =
      testing::IsSupersetOf({std::string("context void caller()"), std::string("file caller.cpp"),
                             std::string("line 7")});
  EXPECT_THAT(visit(Exc<&MiddleError>(place)).calls, isThere);
  const RecordingVisitor caused = visit(Exc<&MiddleError>(makeInner(), place));
  EXPECT_THAT(caused.calls, isThere);
  EXPECT_THAT(caused.calls, testing::Contains("file inner.cpp"));
}

TEST(SourceFileNameTest, IsWhatFollowsTheLastSlash) {
  EXPECT_STREQ(sourceFileName("/build/dir/a.cpp"), "a.cpp");
  EXPECT_STREQ(sourceFileName("./a.cpp"), "a.cpp");
  EXPECT_STREQ(sourceFileName("a.cpp"), "a.cpp");
}

TEST(ExceptionTest, HasAnIdOfItsOwnThatItsCopiesShare) {
  const Exc<& InnerError> first = makeInner();
  const Exc<& InnerError> second = makeInner();
  EXPECT_NE(first.id(), second.id());
  EXPECT_EQ(Exc<&InnerError>(first).id(), first.id());
}

TEST(ExceptionTest, ClonesToItsMostDerivedTypeWithItsCauses) {
  std::unique_ptr<const ExTraceable> copy;
  std::string expected;
  {
    const Exc<& OuterError> original = makeChain();
    expected = formatPlainTextMessage(original);
    copy.reset(static_cast<const ExTraceable&>(original).clone());
  }
  EXPECT_NE(dynamic_cast<const Exc<&OuterError>*>(copy.get()), nullptr);
  EXPECT_EQ(formatPlainTextMessage(*copy), expected);

  const ExTaggedIncludable includable("Code", "text");
  const std::unique_ptr<const Cloneable> other(static_cast<const Cloneable&>(includable).clone());
  EXPECT_NE(dynamic_cast<const ExTaggedIncludable*>(other.get()), nullptr);
}

TEST(ExceptionTest, IsCaughtByItsTagOnly) {
  EXPECT_THROW(throw makeInner(), Exc<&InnerError>);
  EXPECT_EQ(whatOf<Exc<&OuterError>>([] { throw makeInner(); }),
            "another exception: First one, then 2");
  EXPECT_EQ(whatOf<ExTraceable>([] { throw makeInner(); }), "First one, then 2");
}

TEST(ExceptionDeathTest, EndsTheProcessWithItsCodeAndFormatWhenAnArgumentIsMissing) {
  EXPECT_EXIT(Exc<&InnerError>(HERE).what(), testing::KilledBySignal(SIGABRT),
              "InnerError: First %1%, then %2%\n");
  EXPECT_EXIT((Exc<&InnerError>(HERE) % "one").what(), testing::KilledBySignal(SIGABRT),
              "InnerError: First %1%, then %2%\n");
  EXPECT_EXIT(formatPlainTextMessage(Exc<&OuterError>(HERE)), testing::KilledBySignal(SIGABRT),
              "OuterError: Outer: %1%\n");
}
