// A writer of small city databases in the legacy binary format the GeoIP C library opens, for
// the threat origins of tests, benchmarks, the demo and nodes without the real ones: no
// distribution ships a city database, and the real ones are far too big to keep beside the tests.
//
// The file is a binary search tree over the address bits (two 3-byte little-endian records per
// node: the branch for bit 0, then for bit 1), then the city records, then the structure trailer
// (three 0xFF bytes, the edition, the node count). A record at or above the node count is a leaf:
// its distance from the node count is the offset of a city record after the tree, 0 meaning
// "unknown", which is why the record area opens with one unused byte. A city record is the country
// number, region, city and postal code each ended by a zero byte, latitude and longitude as
// (degrees + 180) * 10000 in 3 bytes, and for the United States the metro and area code as
// metro * 1000 + area in 3 bytes.
//
// Names are stored in ISO-8859-1, as the library expects; it gives UTF-8 back on a handle set to
// that charset. Plain functions, no state.
#ifndef MAILSERVER_TOOLS_LOG_FILES_GEOIP_CITY_DB_H_
#define MAILSERVER_TOOLS_LOG_FILES_GEOIP_CITY_DB_H_

#include <string>
#include <vector>

namespace qsvlog {

struct GeoCity {
  std::string network;      // "192.0.2.0/25" or "2001:db8::/48"; networks must not overlap
  std::string countryCode;  // "DE"
  std::string region;       // "16"
  std::string cityLatin1;   // "M\xfcnchen"
  std::string postalCode;
  double latitude = 0;
  double longitude = 0;
  int metroCode = 0;  // used for "US" only
  int areaCode = 0;
};

// Writes a database of the IPv4 city edition, or of the IPv6 one with `v6`, holding `cities`.
// False for a network of the other family, a bad prefix or country code, or a failed write.
bool WriteGeoCityDb(const std::string &path, bool v6, const std::vector<GeoCity> &cities);

}  // namespace qsvlog

#endif  // MAILSERVER_TOOLS_LOG_FILES_GEOIP_CITY_DB_H_
