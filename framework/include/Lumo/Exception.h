#pragma once

#include <exception>

#include <Lumo/String.h>

namespace Lumo {

class AttributeOp;

// Base of every exception of the framework. what() is the text as given, nothing added.
class Exception : public std::exception {
 public:
  explicit Exception(String text) : text_(text) {}
  const char* what() const noexcept override { return text_.charPtr(); }
  const String& message() const { return text_; }

 private:
  String text_;
};

// An argument or an index outside what the callee accepts; nothing was changed.
class RangeException : public Exception {
 public:
  using Exception::Exception;
};

// A call of the platform failed; the error number travels beside the text.
class ErrnoException : public Exception {
 public:
  ErrnoException(String text, int errnoValue) : Exception(text), errnoValue_(errnoValue) {}
  int errnoValue() const { return errnoValue_; }

 private:
  int errnoValue_;
};

// Marks an InternalException can carry. The framework raises none with a mark today.
class ExceptionIdSet {
 public:
  bool empty() const { return true; }
};

// The framework was used against its own protocol.
class InternalException : public Exception {
 public:
  InternalException(String text, ExceptionIdSet ids) : Exception(text), ids_(ids) {}
  const ExceptionIdSet& exceptionIds() const { return ids_; }

 private:
  ExceptionIdSet ids_;
};

// A key of a keyed collection is already taken by another object; nothing was changed.
class NameInUseException : public Exception {
 public:
  using Exception::Exception;
};

// A type does not offer this operation on this attribute; nothing was changed.
class OpNotSupportedException : public Exception {
 public:
  using Exception::Exception;
};

[[noreturn]] void throwRangeException(const String& text);
[[noreturn]] void throwNameInUseException(const String& text);
[[noreturn]] void throwOpNotSupportedException(const AttributeOp& op);

// Constructed once by each module's static initialiser; it does nothing. It makes sure that the
// exception classes are linked into whatever registers types.
struct ExceptionTester {
  ExceptionTester();
};

}  // namespace Lumo
