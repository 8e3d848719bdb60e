// The library's exception class. The library reports failures by results and log lines and never
// throws Error itself; the class stays exported for callers that wrap its codes.
// Error objects are immutable and may be shared between threads.
#ifndef MAILSERVER_FOUNDATION_ERROR_H_
#define MAILSERVER_FOUNDATION_ERROR_H_

#include <cstdint>
#include <stdexcept>
#include <string>

#include "foundation/export.h"

namespace KOLT {
namespace QUILLON_SERVER {

class QSV_EXPORT Error : public std::runtime_error {
 public:
  // The codes carry no names and no texts of their own: any 32-bit value is a code.
  enum ErrorCode : int32_t {};

  explicit Error(ErrorCode code);
  ~Error() override;
  const char *what() const noexcept override;

  ErrorCode code() const { return code_; }

 private:
  ErrorCode code_;
};

// "Mail Server error [N]", N in decimal as a signed 32-bit number. There is no table of messages.
QSV_EXPORT std::string ErrorString(Error::ErrorCode code);

}  // namespace QUILLON_SERVER
}  // namespace KOLT

#endif  // MAILSERVER_FOUNDATION_ERROR_H_
