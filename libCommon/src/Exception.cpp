#include <libCommon/Exception.h>

namespace zrn {

Exception::Exception(String const& message) : m_message(message) {}

// Out of line, so the type information and vtable live in libCommon alone and a catch in an
// application matches a throw from inside a library.
Exception::~Exception() = default;

DatabaseError::DatabaseError(String const& message) : Exception(message) {}

DatabaseError::~DatabaseError() = default;

}  // namespace zrn
