#include "foundation/error.h"

namespace KOLT {
namespace QUILLON_SERVER {

std::string ErrorString(Error::ErrorCode code) {
  return "Mail Server error [" + std::to_string(static_cast<int32_t>(code)) + "]";
}

Error::Error(ErrorCode code) : std::runtime_error(ErrorString(code)), code_(code) {}

Error::~Error() = default;

const char *Error::what() const noexcept { return std::runtime_error::what(); }

}  // namespace QUILLON_SERVER
}  // namespace KOLT
