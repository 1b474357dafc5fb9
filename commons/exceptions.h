#pragma once

#include <boost/format.hpp>
#include <memory>
#include <stdexcept>
#include <string>

/// The form of every error of this program: a code, a unique id, a message, the place where it was
/// raised and, if another exception caused it, that exception.

/// Can make a copy of itself that outlives the handler that caught it.
class Cloneable {
 public:
  virtual ~Cloneable() = default;
  /// A new copy of the most derived object; the caller owns it.
  virtual Cloneable* clone() const = 0;
};

/// Receives the parts of an exception, the outermost one first. Rendering goes
/// through it, so that the exceptions know no output format.
class ExInfoVisitor {
 public:
  virtual ~ExInfoVisitor() = default;
  virtual void setCode(const std::string& code) = 0;
  virtual void setId(const std::string& id) = 0;
  virtual void setMessage(const std::string& message) = 0;
  virtual void setContext(const std::string& context) = 0;
  virtual void setFile(const std::string& file) = 0;
  virtual void setLine(int line) = 0;
  /// The calls that follow describe the exception that caused the present one.
  virtual void advanceToInnerException() = 0;
  virtual void setSeverity(int /*severity*/) {}
};

class ExVisitable {
 public:
  virtual ~ExVisitable() = default;
  virtual void accept(ExInfoVisitor& visitor) const = 0;
};

/// Values of ExTraceable's severity.
enum Severity { SEVERITY_ERROR = 3, SEVERITY_WARNING = 4 };

/// Base of all errors of this program.
class ExTraceable : public Cloneable, public ExVisitable, public std::runtime_error {
 public:
  ExTraceable(const std::string& code, const std::string& messageFormat);

  ExTraceable* clone() const override { return new ExTraceable(*this); }
  void accept(ExInfoVisitor& visitor) const override;

  /// The message with its arguments. A message with an unbound placeholder cannot be rendered,
  /// which is a bug at the place that raised it. Since no exception may leave this function, the
  /// process then ends, after it has written the code and the raw message format to standard error.
  const char* what() const noexcept override;

  const std::string& code() const { return code_; }
  const std::string& id() const { return id_; }

 protected:
  /// Binds the next placeholder of the message.
  template <class Argument>
  void bind(const Argument& argument) {
    message_ % argument;
  }

 private:
  std::string code_;
  std::string messageFormat_;
  boost::format message_;
  mutable std::string text_;
  std::string id_;
  int severity_ = SEVERITY_ERROR;
};

/// Adds the exception that caused this one.
class ExTaggedIncludable : public ExTraceable {
 public:
  ExTaggedIncludable(const std::string& code, const std::string& messageFormat)
      : ExTraceable(code, messageFormat) {}
  ExTaggedIncludable(const ExTraceable& inner, const std::string& code,
                     const std::string& messageFormat)
      : ExTraceable(code, messageFormat), inner_(inner.clone()) {}

  ExTaggedIncludable* clone() const override { return new ExTaggedIncludable(*this); }
  void accept(ExInfoVisitor& visitor) const override;

 private:
  /// Shared by the copies: an exception is never changed once it was raised.
  std::shared_ptr<const ExTraceable> inner_;
};

/// A tag is one kind of error: a function that is declared and never defined. Its address makes
/// Exc<&Tag> a type of its own.
using ErrorTag = void();

/// The code and the message format of a tag; made by DESCRIBE_ERROR_TAG.
template <ErrorTag* Tag>
struct ErrorTagTraits;

/// Describes the tag of a class, declared there as `static ErrorTag Name;`. Its
/// code carries the name of the class.
#define DESCRIBE_ERROR_TAG(tag, messageFormat)                        \
  template <>                                                         \
  struct ErrorTagTraits<&tag> {                                       \
    static constexpr const char* code() { return #tag; }              \
    static constexpr const char* format() { return (messageFormat); } \
  }

/// Declares a tag at namespace level and describes it.
#define DECLARE_ERROR_TAG(tag, messageFormat) \
  void tag();                                 \
  DESCRIBE_ERROR_TAG(tag, messageFormat)

/// The bare file name of a source path, so that no error shows a build path.
constexpr const char* sourceFileName(const char* path) {
  const char* name = path;
  for (const char* c = path; *c != '\0'; ++c) {
    if (*c == '/') name = c + 1;
  }
  return name;
}

/// The position arguments of Exc: where the error is raised.
#define HERE __PRETTY_FUNCTION__, sourceFileName(__FILE__), __LINE__

/// A place in the code of a caller, for errors that are raised for it: `{HERE}`.
struct Place {
  const char* function;
  const char* file;
  int line;
};

/// Every error that is thrown:
///
///   throw Exc<&HostNotFound>(HERE) % host % reason;
///   catch (const ExTraceable& e) { throw Exc<&CantRetrieveDump>(e, HERE); }
///
/// Bind exactly as many arguments as the message format has placeholders.
template <ErrorTag* Tag>
class Exc : public ExTaggedIncludable {
  using Traits = ErrorTagTraits<Tag>;

 public:
  Exc(const char* context, const char* file, int line)
      : ExTaggedIncludable(Traits::code(), Traits::format()),
        context_(context),
        file_(file),
        line_(line) {}
  Exc(const ExTraceable& inner, const char* context, const char* file, int line)
      : ExTaggedIncludable(inner, Traits::code(), Traits::format()),
        context_(context),
        file_(file),
        line_(line) {}
  explicit Exc(const Place& place) : Exc(place.function, place.file, place.line) {}
  Exc(const ExTraceable& inner, const Place& place)
      : Exc(inner, place.function, place.file, place.line) {}

  Exc* clone() const override { return new Exc(*this); }

  void accept(ExInfoVisitor& visitor) const override {
    visitor.setContext(context_);
    visitor.setFile(file_);
    visitor.setLine(line_);
    ExTaggedIncludable::accept(visitor);
  }

  template <class Argument>
  Exc& operator%(const Argument& argument) {
    this->bind(argument);
    return *this;
  }

 private:
  std::string context_;
  std::string file_;
  int line_ = 0;
};

/// Renders an exception and its causes as text: a block for each, with a separator
/// line between them.
class TextMsgFormatter : public ExInfoVisitor {
 public:
  void setCode(const std::string& code) override { code_ = code; }
  void setId(const std::string& id) override { id_ = id; }
  void setMessage(const std::string& message) override { message_ = message; }
  void setContext(const std::string& context) override { context_ = context; }
  void setFile(const std::string& file) override { file_ = file; }
  void setLine(int line) override { line_ = line; }
  void setSeverity(int severity) override { severity_ = severity; }
  void advanceToInnerException() override;

  /// All blocks, without a line end after the last. Must be called once, after the exception has
  /// accepted this visitor.
  std::string finish();

 private:
  void appendBlock();

  std::string output_;
  std::string code_;
  std::string id_;
  std::string context_;
  std::string file_;
  std::string message_;
  int line_ = 0;
  int severity_ = SEVERITY_ERROR;
};

/// The plain-text form of an exception and its causes, for the debug log and the
/// console.
std::string formatPlainTextMessage(const ExTraceable& exception);

/// Errors that more than one module raises.
DECLARE_ERROR_TAG(AssertionFailed, "Assertion failed: %1%");
DECLARE_ERROR_TAG(CantTakeFileOwnership, "Cannot take ownership of %1%: %2%");
DECLARE_ERROR_TAG(StreamRead, "Cannot read data from the stream");
