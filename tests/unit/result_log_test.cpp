#include <sys/stat.h>

#include "commons/atomic_replacement.h"
#include "commons/log.h"
#include "commons/session.h"
#include "support.h"

DECLARE_ERROR_TAG(LoggedError, "failed: %1%");

namespace {

class ResultLogTest : public testing::Test {
 protected:
  std::string resultFile(const std::string& name = "migration.result") const {
    return dir_ / "session/" + name;
  }
  /// Runs `body` on a result log and returns the document that the log writes.
  std::string resultOf(const std::function<void(XmlLog&)>& body) const {
    {
      XmlLog log("");
      body(log);
    }
    return readFile(resultFile());
  }

  ScopedTempDir dir_;
  SessionLifetimeController session_{dir_ / "session"};
};

Exc<&LoggedError> makeError(const std::string& text = "text") {
  return Exc<&LoggedError>(HERE) % text;
}

/// The element for an error; `causes` are the elements of its causes.
std::string message(const ExTraceable& error, const std::string& causes = "") {
  return "<message code=\"" + error.code() + "\" id=\"" + error.id().c_str() +
         "\" severity=\"error\"><description>" + error.what() + "</description>" + causes +
         "</message>";
}

std::string result(const std::string& status, const std::string& content) {
  return savedXml("<execution-result status=\"" + status + "\">" + content + "</execution-result>");
}

std::string emptyResult(const std::string& status) {
  return savedXml("<execution-result status=\"" + status + "\"/>");
}

}  // namespace

TEST_F(ResultLogTest, IsWrittenWhenItIsDestroyed) {
  {
    const XmlLog log("");
    EXPECT_FALSE(exists(resultFile()));
  }
  EXPECT_EQ(readFile(resultFile()), emptyResult("error"));
  EXPECT_EQ(ownerAndMode(resultFile()), "20000:20000 600");
  EXPECT_THAT(entriesOf(dir_ / "session"), testing::ElementsAre("archives", "migration.result"));
}

TEST_F(ResultLogTest, IsWrittenToTheNamedFileOfTheSession) {
  { const XmlLog log("transfer.result"); }
  EXPECT_EQ(readFile(resultFile("transfer.result")), emptyResult("error"));
  EXPECT_FALSE(exists(resultFile()));
}

TEST_F(ResultLogTest, SaysSuccessOnlyWhenItWasSet) {
  EXPECT_EQ(resultOf([](XmlLog& log) { log.setSuccess(true); }), emptyResult("success"));
  EXPECT_EQ(resultOf([](XmlLog& log) {
              log.setSuccess(true);
              log.setSuccess(false);
            }),
            emptyResult("error"));
}

TEST_F(ResultLogTest, HoldsEachLoggedErrorWithItsCauses) {
  const Exc<& LoggedError> first = makeError("one");
  const Exc<& LoggedError> cause = makeError("cause");
  const Exc<& LoggedError> second = Exc<&LoggedError>(cause, HERE) % "two";
  EXPECT_EQ(resultOf([&](XmlLog& log) {
              log.log(first);
              log.log(second);
            }),
            result("error", message(first) + message(second, message(cause))));
}

TEST_F(ResultLogTest, KeepsItsMessagesInASuccessfulRun) {
  const Exc<& LoggedError> error = makeError();
  EXPECT_EQ(resultOf([&](XmlLog& log) {
              log.log(error);
              log.setSuccess(true);
            }),
            result("success", message(error)));
}

TEST_F(ResultLogTest, KeepsNoTraceOfAnObjectWithoutErrors) {
  EXPECT_EQ(resultOf([](XmlLog& log) {
              log.pushObject("example.com", "domain");
              log.pushObject("mail", "service");
              log.popObject();
              log.popObject();
            }),
            emptyResult("error"));
}

TEST_F(ResultLogTest, KeepsAllObjectsAroundAnError) {
  const Exc<& LoggedError> error = makeError();
  EXPECT_EQ(resultOf([&](XmlLog& log) {
              log.pushObject("joe", "client");
              log.pushObject("example.com", "domain");
              log.log(error);
              log.popObject();
              log.pushObject("example.org", "domain");
              log.popObject();
              log.popObject();
              log.pushObject("jane", "client");
              log.popObject();
            }),
            result("error",
                   "<object name=\"joe\" type=\"client\"><object name=\"example.com\""
                   " type=\"domain\">" +
                       message(error) + "</object></object>"));
}

TEST_F(ResultLogTest, GroupsErrorsByObject) {
  const Exc<& LoggedError> inner = makeError("inner");
  const Exc<& LoggedError> outer = makeError("outer");
  const Exc<& LoggedError> top = makeError("top");
  EXPECT_EQ(resultOf([&](XmlLog& log) {
              log.pushObject("a", "x");
              log.pushObject("b", "y");
              log.log(inner);
              log.popObject();
              log.log(outer);
              log.popObject();
              log.log(top);
            }),
            result("error", "<object name=\"a\" type=\"x\"><object name=\"b\" type=\"y\">" +
                                message(inner) + "</object>" + message(outer) + "</object>" +
                                message(top)));
}

TEST_F(ResultLogTest, KeepsObjectsThatAreStillOpenAtTheEnd) {
  EXPECT_EQ(resultOf([](XmlLog& log) { log.pushObject("<a>", "\"x\""); }),
            result("error", "<object name=\"&lt;a&gt;\" type=\"&quot;x&quot;\"/>"));
}

TEST_F(ResultLogTest, CountsItsOpenElements) {
  XmlLog log("");
  EXPECT_EQ(log.getDepth(), 1u);
  log.pushObject("a", "x");
  log.pushObject("b", "y");
  EXPECT_EQ(log.getDepth(), 3u);
  log.log(makeError());
  EXPECT_EQ(log.getDepth(), 3u);
  log.popObject();
  EXPECT_EQ(log.getDepth(), 2u);
}

TEST_F(ResultLogTest, CannotLeaveItsRoot) {
  EXPECT_EQ(resultOf([](XmlLog& log) {
              EXPECT_EQ(whatOf<Exc<&NoParentNode>>([&] { log.popObject(); }),
                        "No parent node on requested XML element");
              EXPECT_EQ(log.getDepth(), 1u);
              log.pushObject("a", "x");
              log.popObject();
              EXPECT_THROW(log.popObject(), Exc<&NoParentNode>);
            }),
            emptyResult("error"));
}

TEST_F(ResultLogTest, HoldsTextOfAnyBytes) {
  resultOf([](XmlLog& log) {
    log.pushObject("a\xFF", "b\x01");
    log.log(makeError("\x1B[31m\xC3"));
  });
  tXmlDtmDocument document(resultFile().c_str());
  document.initFileDoc("execution-result");
  const XmlNodeRef object = document.getRootNodeChild("object");
  EXPECT_EQ(document.getAttribute(object, "name"), "a\xEF\xBF\xBD");
  EXPECT_EQ(document.getAttribute(object, "type"), "b\xEF\xBF\xBD");
  EXPECT_EQ(document.getNodeText(tXPathExpr(document, "//description").getNode()),
            "failed: \xEF\xBF\xBD[31m\xEF\xBF\xBD");
}

TEST_F(ResultLogTest, ReportsToTheDebugLogThatItCannotBeSaved) {
  CategoryRecorder recorder("k.log");
  Log4cppDebugLog debugLog(false, false);
  ASSERT_EQ(mkdir(resultFile().c_str(), 0755), 0);
  theDebugLog = &debugLog;
  { const XmlLog log(""); }
  theDebugLog = nullptr;
  EXPECT_THAT(recorder.lines(),
              testing::ElementsAre(
                  testing::AllOf(testing::StartsWith("INFO k.log: CantRenameFile["),
                                 testing::HasSubstr(" to " + resultFile() +
                                                    ": Is a directory [atomic_replacement.cpp:"))));
}

TEST_F(ResultLogTest, DoesNotEndTheProcessWhenItCannotBeSavedAndNobodyListens) {
  ASSERT_EQ(mkdir(resultFile().c_str(), 0755), 0);
  EXPECT_EQ(theDebugLog, nullptr);
  { const XmlLog log(""); }
  EXPECT_EQ(ownerAndMode(resultFile()), "0:0 755");
}

TEST_F(ResultLogTest, LivesAsLongAsItsController) {
  EXPECT_EQ(theLog, nullptr);
  {
    const LogLifetimeController controller("transfer.result");
    ASSERT_NE(theLog, nullptr);
    theLog->setSuccess(true);
    EXPECT_FALSE(exists(resultFile("transfer.result")));
  }
  EXPECT_EQ(theLog, nullptr);
  EXPECT_EQ(readFile(resultFile("transfer.result")), emptyResult("success"));
}
