#include "foundation/map_pattern.h"

#include "foundation/strings.h"

std::string ConvertPatternToRegexp(const std::string &pattern) {
  std::string regexp = "/^" + pattern + "$/";
  // Points first: the expansion of "*" has none.
  StrReplace(regexp, ".", "\\.");
  StrReplace(regexp, "*", "[^@]*");
  return regexp;
}
