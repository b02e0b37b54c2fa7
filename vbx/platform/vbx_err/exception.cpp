#include <vbx/err.h>

ERR_EXCEPTION::ERR_EXCEPTION() = default;
ERR_EXCEPTION::ERR_EXCEPTION(const ERR_EXCEPTION&) = default;
ERR_EXCEPTION& ERR_EXCEPTION::operator=(const ERR_EXCEPTION&) = default;
ERR_EXCEPTION::~ERR_EXCEPTION() = default;

const char* ERR_EXCEPTION::report() const {
    return "error";
}
