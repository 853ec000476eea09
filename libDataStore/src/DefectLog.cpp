#include "DefectLog.h"

#include <libCommon/Logger.h>

namespace zrn {

Logger* defectLogger() {
    static Logger* const instance = [] {
        Logger* created = nullptr;
        LogFactory::createLogger("DEFECT.GENERIC", created);
        return created;
    }();
    return instance;
}

}  // namespace zrn
