#include <Lumo/Exception.h>
#include <Lumo/TypeRegistry.h>

namespace Lumo {

void throwRangeException(const String& text) {
  throw RangeException(text);
}

void throwNameInUseException(const String& text) {
  throw NameInUseException(text);
}

void throwOpNotSupportedException(const AttributeOp& op) {
  const std::string attribute = op.attr() ? op.attr()->name() : "(none)";
  throw OpNotSupportedException("operation " + std::to_string(op.opId()) +
                                " is not supported on attribute " + attribute);
}

ExceptionTester::ExceptionTester() = default;

}  // namespace Lumo
