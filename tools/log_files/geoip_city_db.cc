#include "log_files/geoip_city_db.h"

#include <GeoIP.h>
#include <arpa/inet.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>

namespace qsvlog {

namespace {

// The edition bytes of the trailer.
constexpr unsigned char kCityEdition = GEOIP_CITY_EDITION_REV1;
constexpr unsigned char kCityEditionV6 = GEOIP_CITY_EDITION_REV1_V6;

struct Node {
  uint32_t next[2] = {0, 0};    // child node, when `isNode`
  uint32_t offset[2] = {0, 0};  // city record offset, 0 unknown, when not
  bool isNode[2] = {false, false};
};

void Put3(std::string &out, uint32_t value) {
  out.push_back(static_cast<char>(value & 0xff));
  out.push_back(static_cast<char>((value >> 8) & 0xff));
  out.push_back(static_cast<char>((value >> 16) & 0xff));
}

uint32_t Degrees(double degrees) {
  return static_cast<uint32_t>(std::lround((degrees + 180) * 10000));
}

// The address bytes and prefix length of "address/prefix".
bool ParseNetwork(const std::string &network, bool v6, unsigned char bytes[16], int *prefix) {
  const size_t slash = network.find('/');
  if (slash == std::string::npos) return false;
  const std::string address = network.substr(0, slash);
  char *end = nullptr;
  const long length = strtol(network.c_str() + slash + 1, &end, 10);
  if (*end != '\0' || length < 1 || length > (v6 ? 128 : 32)) return false;
  *prefix = static_cast<int>(length);
  return inet_pton(v6 ? AF_INET6 : AF_INET, address.c_str(), bytes) == 1;
}

std::string Record(const GeoCity &city, int country) {
  std::string record(1, static_cast<char>(country));
  for (const std::string *text : {&city.region, &city.cityLatin1, &city.postalCode}) {
    record += *text;
    record.push_back('\0');
  }
  Put3(record, Degrees(city.latitude));
  Put3(record, Degrees(city.longitude));
  if (city.countryCode == "US")
    Put3(record, static_cast<uint32_t>(city.metroCode * 1000 + city.areaCode));
  return record;
}

}  // namespace

bool WriteGeoCityDb(const std::string &path, bool v6, const std::vector<GeoCity> &cities) {
  std::vector<Node> nodes(1);
  std::string records(1, '\0');  // offset 0 stands for "unknown"
  for (const GeoCity &city : cities) {
    unsigned char bytes[16] = {};
    int prefix = 0;
    const int country = GeoIP_id_by_code(city.countryCode.c_str());
    if (!ParseNetwork(city.network, v6, bytes, &prefix) || country <= 0) return false;
    const uint32_t offset = static_cast<uint32_t>(records.size());
    records += Record(city, country);
    size_t at = 0;
    for (int i = 0; i < prefix; ++i) {
      const int bit = (bytes[i / 8] >> (7 - i % 8)) & 1;
      if (i == prefix - 1) {
        if (nodes[at].isNode[bit]) return false;
        nodes[at].offset[bit] = offset;
        break;
      }
      if (!nodes[at].isNode[bit]) {
        if (nodes[at].offset[bit] != 0) return false;
        nodes.emplace_back();
        nodes[at].isNode[bit] = true;
        nodes[at].next[bit] = static_cast<uint32_t>(nodes.size() - 1);
      }
      at = nodes[at].next[bit];
    }
  }
  const uint32_t segments = static_cast<uint32_t>(nodes.size());
  std::string file;
  for (const Node &node : nodes) {
    for (int bit = 0; bit < 2; ++bit) {
      Put3(file, node.isNode[bit] ? node.next[bit] : segments + node.offset[bit]);
    }
  }
  file += records;
  file += "\xff\xff\xff";
  file.push_back(static_cast<char>(v6 ? kCityEditionV6 : kCityEdition));
  Put3(file, segments);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(file.data(), static_cast<std::streamsize>(file.size()));
  return static_cast<bool>(out.flush());
}

}  // namespace qsvlog
