// The two spellings of internationalised domains: the ASCII (punycode, "xn--")
// form that DNS and Postfix maps carry, and the UTF-8 form people type and
// read. Works on domains, on addresses (only the part after the last '@' is
// converted; the local part stays as written) and on the patterns "*.domain"
// and ".domain" (the leading "*." or "." stays).
//
// The ASCII form is always in lower case, as IDNA maps it, so that it serves
// as the key in maps and lookups; converting it to UTF-8 and back gives the
// same text. The UTF-8 form of a domain without "xn--" labels is the domain
// exactly as given; a decoded one is in lower case.
// Stateless; any thread may call these.

#ifndef EAI_PUNYCODE_H_
#define EAI_PUNYCODE_H_

#include <string>

namespace KOLT {
namespace QUILLON_SERVER {

// The ASCII form of in. 0 with out set (possibly equal to in), or non-zero
// with out untouched when in is not a valid domain.
int ConvertToPunycode(const std::string &in, std::string &out);

// The UTF-8 form of in, "xn--" labels decoded. 0 with out set, or non-zero
// with out untouched when a label is not valid punycode.
int ConvertToUTF8(const std::string &in, std::string &out);

// Converts in to the other spelling: non-ASCII text to its ASCII form, ASCII
// text with an "xn--" label to its UTF-8 form. true only when out was set to
// something different from in; otherwise out is untouched.
bool ConvertToPunycodeOrUTF8(const std::string &in, std::string &out);

}  // namespace QUILLON_SERVER
}  // namespace KOLT

#endif  // EAI_PUNYCODE_H_
