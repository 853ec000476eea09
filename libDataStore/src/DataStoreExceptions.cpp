#include <libDataStore/DataStoreExceptions.h>

namespace zrn {

// Destructors out of line: the type information and vtable then live in this library alone.
CannotAccessClosedDatabaseException::CannotAccessClosedDatabaseException(String const& message)
    : Exception(message) {}
CannotAccessClosedDatabaseException::~CannotAccessClosedDatabaseException() = default;

IdAlreadyUsedException::IdAlreadyUsedException(String const& message) : Exception(message) {}
IdAlreadyUsedException::~IdAlreadyUsedException() = default;

IdDoesntExistException::IdDoesntExistException(String const& message) : Exception(message) {}
IdDoesntExistException::~IdDoesntExistException() = default;

InvalidColumnNameException::InvalidColumnNameException(String const& message)
    : Exception(message) {}
InvalidColumnNameException::~InvalidColumnNameException() = default;

OutOfUniqueIdsException::OutOfUniqueIdsException(String const& message) : Exception(message) {}
OutOfUniqueIdsException::~OutOfUniqueIdsException() = default;

RowDataMismatchException::RowDataMismatchException(String const& message) : Exception(message) {}
RowDataMismatchException::~RowDataMismatchException() = default;

ZeroTableColumnsException::ZeroTableColumnsException(String const& message) : Exception(message) {}
ZeroTableColumnsException::~ZeroTableColumnsException() = default;

}  // namespace zrn
