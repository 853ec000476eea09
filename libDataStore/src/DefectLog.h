#pragma once

namespace zrn {

class Logger;

// The logger "DEFECT.GENERIC", on which every store reports data defects at priority 4: rows
// too short for their record, ids that do not exist in a finish or set operation, duplicate
// links. Such defects are logged, never thrown.
Logger* defectLogger();

}  // namespace zrn
