#include <sys/stat.h>
#include <unistd.h>

#include <log4cpp/Category.hh>

#include "commons/log.h"
#include "commons/session.h"
#include "support.h"

DECLARE_ERROR_TAG(DebuggedError, "failed: %1%");

namespace {

const std::string PROPERTIES_FILE = "/mnt/product/DTM/log4cpp.properties";

/// A file appender A1 for the session's log and a console appender A2, both at the root category,
/// and the lines of `more`.
std::string properties(const std::string& more = "") {
  return "log4cpp.rootCategory=INFO, A1, A2\n"
         "log4cpp.appender.A1=FileAppender\n"
         "log4cpp.appender.A1.fileName=${LOG_FILE_NAME}\n"
         "log4cpp.appender.A1.layout=PatternLayout\n"
         "log4cpp.appender.A1.layout.ConversionPattern=%p %c: %m%n\n"
         "log4cpp.appender.A2=ConsoleAppender\n"
         "log4cpp.appender.A2.target=stderr\n"
         "log4cpp.appender.A2.layout=PatternLayout\n"
         "log4cpp.appender.A2.layout.ConversionPattern=console %m%n\n" +
         more;
}

/// theDebugLog, and a record of what is written to it.
class DebugLogTest : public testing::Test {
 protected:
  DebugLogTest() { theDebugLog = &debugLog_; }
  ~DebugLogTest() override { theDebugLog = nullptr; }

  CategoryRecorder recorder_{"k.log"};
  Log4cppDebugLog debugLog_{false, false};
};

using StartStopLoggerTest = DebugLogTest;

/// A session whose directory has this name, and a properties file. For tests in a
/// fresh process: log4cpp is configured once.
class LogWorld {
 public:
  explicit LogWorld(const std::string& propertiesText = properties(),
                    const std::string& sessionName = "session")
      : properties_(PROPERTIES_FILE, propertiesText), session_(dir_ / sessionName) {}

  std::string logFile() const { return theSession->getLogFileName(); }
  std::string logged() const { return readFile(logFile()); }
  /// What reaches the console when `text` is logged to a category.
  std::string consoleFor(const std::string& category, const std::string& text) const {
    const CapturedStream console(STDERR_FILENO);
    log4cpp::Category::getInstance(category).info(text);
    return console.text();
  }

 private:
  ScopedTempDir dir_;
  ScopedFile properties_;
  SessionLifetimeController session_;
};

std::string current(const char* variable) {
  const char* value = getenv(variable);
  return value ? value : "(unset)";
}

}  // namespace

// --- The debug log ---

TEST_F(DebugLogTest, TakesTextsFormatsAndExceptionsAtPriorityInfo) {
  const Exc<& DebuggedError> error = Exc<&DebuggedError>(HERE) % "text";
  debugLog_.log(std::string("100%s %n"));
  debugLog_.log(boost::format("%2% %1%") % "a" % 1);
  debugLog_.log(error);
  EXPECT_THAT(recorder_.lines(),
              testing::ElementsAre("INFO k.log: 100%s %n", "INFO k.log: 1 a",
                                   "INFO k.log: " + formatPlainTextMessage(error)));
}

TEST_F(DebugLogTest, IsSilentWhereItsPriorityIsNotEnabled) {
  log4cpp::Category::getInstance("k.log").setPriority(log4cpp::Priority::NOTICE);
  debugLog_.log(std::string("text"));
  EXPECT_THAT(recorder_.lines(), testing::IsEmpty());
}

TEST_F(DebugLogTest, AnswersWithCrossedNames) {
  for (const bool debug : {false, true}) {
    for (const bool verbose : {false, true}) {
      const Log4cppDebugLog log(debug, verbose);
      EXPECT_EQ(log.isVerboseMode(), debug && !verbose);
      EXPECT_EQ(log.isDebugMode(), verbose);
    }
  }
}

// --- Start and end records ---

TEST_F(StartStopLoggerTest, WritesTheCommandLineAndTheExitCode) {
  const char* const argv[] = {"/usr/bin/sondrel", "--help", "", "a b", "it's"};
  {
    StartStopLogger logger("Sondrel", 5, argv);
    EXPECT_THAT(recorder_.lines(),
                testing::ElementsAre(
                    "INFO k.log: Sondrel started : /usr/bin/sondrel --help '' a\\ b it\\'s"));
    logger.setExitCode(17);
  }
  EXPECT_THAT(recorder_.lines(),
              testing::ElementsAre("INFO k.log: Sondrel finished. Exit code: 17"));
}

TEST_F(StartStopLoggerTest, ReportsTheExitCodeZero) {
  const char* const argv[] = {"sondrel"};
  StartStopLogger("Sondrel", 1, argv).setExitCode(0);
  EXPECT_THAT(recorder_.lines(),
              testing::ElementsAre("INFO k.log: Sondrel started : sondrel",
                                   "INFO k.log: Sondrel finished. Exit code: 0"));
}

TEST_F(StartStopLoggerTest, SaysWithTwoBlanksThatThereIsNoExitCode) {
  const char* const argv[] = {"sondrel"};
  { const StartStopLogger logger("Sondrel", 1, argv); }
  EXPECT_THAT(recorder_.lines(),
              testing::Contains("INFO k.log: Sondrel finished.  (exit code is not reported)"));
}

TEST_F(StartStopLoggerTest, FollowsTheProcessIntoADaemon) {
  const char* const argv[] = {"sondrel"};
  EXPECT_THAT(childDaemonHandlers(), testing::IsEmpty());
  {
    const StartStopLogger logger("Sondrel", 1, argv);
    EXPECT_THAT(childDaemonHandlers(), testing::SizeIs(1));
    EXPECT_THAT(parentDaemonHandlers(), testing::IsEmpty());
    const std::string oldPid = std::to_string(getpid());
    recorder_.lines();
    inChild([&] {
      for (const auto& handler : childDaemonHandlers()) handler();
      for (const auto& handler : childDaemonHandlers()) handler();
      const std::string pid = std::to_string(getpid());
      EXPECT_THAT(recorder_.lines(),
                  testing::ElementsAre("INFO k.log: Sondrel " + oldPid + " -> (" + pid + " daemon)",
                                       "INFO k.log: Sondrel " + pid + " -> (" + pid + " daemon)"));
    });
  }
  EXPECT_THAT(childDaemonHandlers(), testing::IsEmpty());
}

// --- Configuration of log4cpp ---

TEST(InitializeLog4CppTest, SendsTheLogToTheSessionForOwnerAndGroupOnly) {
  IN_FRESH_PROCESS();
  const LogWorld world;
  umask(0);
  initializeLog4Cpp(false);
  EXPECT_EQ(umask(022), 0u);
  log4cpp::Category::getInstance("k.Ssh").info(std::string("100%s"));
  EXPECT_EQ(world.logged(), "INFO k.Ssh: 100%s\n");
  EXPECT_EQ(ownerAndMode(world.logFile()), "0:0 640");
}

TEST(InitializeLog4CppTest, TakesTheConsoleFromTheRootOnlyUnlessVerbose) {
  IN_FRESH_PROCESS();
  const LogWorld world(properties("log4cpp.category.k.Ssh=INFO, A2\n"));
  initializeLog4Cpp(false);
  EXPECT_EQ(world.consoleFor("k.log", "text"), "");
  EXPECT_EQ(world.consoleFor("k.Ssh", "other"), "console other\n");
  EXPECT_EQ(world.logged(), "INFO k.log: text\nINFO k.Ssh: other\n");
}

TEST(InitializeLog4CppTest, LeavesTheConsoleWhenVerbose) {
  IN_FRESH_PROCESS();
  const LogWorld world;
  initializeLog4Cpp(true);
  EXPECT_EQ(world.consoleFor("k.log", "text"), "console text\n");
  EXPECT_EQ(world.logged(), "INFO k.log: text\n");
}

TEST(InitializeLog4CppTest, NeedsNoConsoleAppender) {
  IN_FRESH_PROCESS();
  const LogWorld world(
      "log4cpp.rootCategory=INFO, A1\nlog4cpp.appender.A1=FileAppender\n"
      "log4cpp.appender.A1.fileName=${LOG_FILE_NAME}\nlog4cpp.appender.A1.layout=BasicLayout\n");
  initializeLog4Cpp(false);
  EXPECT_EQ(world.consoleFor("k.log", "text"), "");
  EXPECT_THAT(world.logged(), testing::EndsWith("text\n"));
}

TEST(InitializeLog4CppTest, ConfiguresOncePerProcess) {
  IN_FRESH_PROCESS();
  const LogWorld world;
  initializeLog4Cpp(true);
  writeFile(PROPERTIES_FILE, "log4cpp.rootCategory=ERROR\n");
  initializeLog4Cpp(false);
  EXPECT_EQ(world.consoleFor("k.log", "text"), "console text\n");
  EXPECT_EQ(world.logged(), "INFO k.log: text\n");
}

TEST(InitializeLog4CppTest, TakesAnyCharactersInThePathOfTheSession) {
  IN_FRESH_PROCESS();
  for (const char* name : {"a b", "#hash", "line\nlog4cpp.rootCategory=DEBUG, A1", "a=b, c",
                           "${PATH}", "$HOME", "\\n", "100%s", "na\xC3\xAFve\xFF", "'\"!"}) {
    SCOPED_TRACE(name);
    // Each in a process of its own, since log4cpp is configured once.
    inChild([&] {
      const LogWorld world(properties(), std::string("x") + name + "x");
      initializeLog4Cpp(false);
      log4cpp::Category::getInstance("k.log").info(std::string("text"));
      log4cpp::Category::getInstance("k.log").debug(std::string("not enabled"));
      EXPECT_EQ(world.logged(), "INFO k.log: text\n");
    });
  }
}

TEST(InitializeLog4CppTest, LeavesTheEnvironmentAsItWas) {
  IN_FRESH_PROCESS("LOG_FILE_NAME=/mnt/of-the-caller");
  const LogWorld world;
  initializeLog4Cpp(false);
  EXPECT_EQ(current("LOG_FILE_NAME"), "/mnt/of-the-caller");
  EXPECT_FALSE(exists("/mnt/of-the-caller"));
  EXPECT_TRUE(exists(world.logFile()));
}

TEST(InitializeLog4CppTest, LeavesNoVariableInTheEnvironment) {
  IN_FRESH_PROCESS();
  const LogWorld world;
  initializeLog4Cpp(false);
  EXPECT_EQ(current("LOG_FILE_NAME"), "(unset)");
}

TEST(InitializeLog4CppTest, GoesOnWithoutAppendersWhenThePropertiesAreMissing) {
  IN_FRESH_PROCESS();
  const LogWorld world;
  SystemLog systemLog;
  ASSERT_EQ(unlink(PROPERTIES_FILE.c_str()), 0);
  const CapturedStream console(STDERR_FILENO);
  const DebugLogLifetimeController controller(false, true);
  theDebugLog->log(std::string("text"));
  EXPECT_EQ(console.text(), "");
  EXPECT_FALSE(exists(world.logFile()));
  EXPECT_THAT(systemLog.lines(), testing::ElementsAre(testing::HasSubstr(PROPERTIES_FILE)));
}

TEST(InitializeLog4CppTest, GoesOnWithoutAppendersWhenThePropertiesAreBroken) {
  IN_FRESH_PROCESS();
  for (const char* broken :
       {"log4cpp.appender.A3=NoSuchAppender\n",
        // log4cpp finds this error only after the root category has got its appenders.
        "log4cpp.category.k.zzz=INFO, A9\n", "log4cpp.category.k.zzz=NOPRIORITY, A1\n"}) {
    SCOPED_TRACE(broken);
    inChild([&] {
      const LogWorld world(properties(broken));
      SystemLog systemLog;
      const CapturedStream console(STDERR_FILENO);
      const DebugLogLifetimeController controller(false, true);
      theDebugLog->log(std::string("text"));
      EXPECT_EQ(console.text(), "");
      EXPECT_THAT(systemLog.lines(), testing::ElementsAre(testing::HasSubstr(PROPERTIES_FILE)));
    });
  }
}

TEST(DebugLogLifetimeControllerTest, ConfiguresLoggingAndTakesTheDebugLogAwayAgain) {
  IN_FRESH_PROCESS();
  const LogWorld world;
  EXPECT_EQ(theDebugLog, nullptr);
  {
    const DebugLogLifetimeController controller(false, true);
    ASSERT_NE(theDebugLog, nullptr);
    EXPECT_TRUE(theDebugLog->isDebugMode());
    EXPECT_FALSE(theDebugLog->isVerboseMode());
    const CapturedStream console(STDERR_FILENO);
    theDebugLog->log(std::string("text"));
    EXPECT_EQ(console.text(), "console text\n");
  }
  EXPECT_EQ(theDebugLog, nullptr);
  EXPECT_EQ(world.logged(), "INFO k.log: text\n");
}

// --- Raw bytes in log lines ---

TEST(MemchunkLogTest, WritesItsBytesUnchanged) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  CategoryRecorder recorder("k.unit");
  log4cpp::Category& category = log4cpp::Category::getInstance("k.unit");
  category.infoStream() << "[" << memchunk_log{bytes.data(), bytes.size()} << "]";
  category.infoStream() << "[" << memchunk_log{bytes.data(), 0} << "]";
  category.infoStream() << "[" << memchunk_log{nullptr, 0} << "]";
  EXPECT_THAT(recorder.lines(), testing::ElementsAre("INFO k.unit: [" + bytes + "]",
                                                     "INFO k.unit: []", "INFO k.unit: []"));
}

TEST(MemchunkLogTest, WritesNothingToAStreamWithoutAPriority) {
  CategoryRecorder recorder("k.unit");
  log4cpp::Category& category = log4cpp::Category::getInstance("k.unit");
  {
    log4cpp::CategoryStream stream(category, log4cpp::Priority::NOTSET);
    stream << memchunk_log{"text", 4};
  }
  EXPECT_THAT(recorder.lines(), testing::IsEmpty());
}
