// qsv-geoip-gen: writes small city databases of the legacy GeoIP format into a folder, for the
// demo and for nodes without the real ones: the address blocks the traffic generator draws its
// clients from, each placed in a real city.
//
//   qsv-geoip-gen DIR        writes DIR/GeoLiteCity.dat and DIR/GeoLiteCityv6.dat
//
// Exit status 0, or 1 with one line on stderr.
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "log_files/geoip_city_db.h"

namespace {

// The documentation blocks the generator uses, a quarter each, and a block of IPv6.
const std::vector<qsvlog::GeoCity> kCities = {
    {"192.0.2.0/26", "DE", "16", "Berlin", "10115", 52.52, 13.405},
    {"192.0.2.64/26", "DE", "02", "M\xfcnchen", "80331", 48.137, 11.575},
    {"192.0.2.128/26", "FR", "A8", "Paris", "75001", 48.857, 2.352},
    {"192.0.2.192/26", "GB", "H9", "London", "EC1A", 51.507, -0.128},
    {"198.51.100.0/26", "US", "NY", "New York", "10001", 40.713, -74.006, 501, 212},
    {"198.51.100.64/26", "BR", "27", "S\xe3o Paulo", "01000", -23.551, -46.633},
    {"198.51.100.128/26", "JP", "40", "Tokyo", "100-0001", 35.690, 139.692},
    {"198.51.100.192/26", "IN", "16", "Mumbai", "400001", 19.076, 72.878},
    {"203.0.113.0/26", "AU", "02", "Sydney", "2000", -33.869, 151.209},
    {"203.0.113.64/26", "ZA", "11", "Cape Town", "8001", -33.925, 18.424},
    {"203.0.113.128/26", "CA", "ON", "Toronto", "M5H", 43.653, -79.383},
    {"203.0.113.192/26", "ES", "29", "Madrid", "28001", 40.417, -3.704},
};

const std::vector<qsvlog::GeoCity> kCitiesV6 = {
    {"2001:db8::/33", "NL", "07", "Amsterdam", "1012", 52.370, 4.895},
    {"2001:db8:8000::/33", "SE", "26", "Stockholm", "111 20", 59.329, 18.069},
};

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2 || argv[1][0] != '/') {
    fprintf(stderr, "usage: qsv-geoip-gen DIR   (an absolute folder)\n");
    return 1;
  }
  const std::string dir = argv[1];
  mkdir(dir.c_str(), 0755);
  if (!qsvlog::WriteGeoCityDb(dir + "/GeoLiteCity.dat", false, kCities) ||
      !qsvlog::WriteGeoCityDb(dir + "/GeoLiteCityv6.dat", true, kCitiesV6)) {
    fprintf(stderr, "qsv-geoip-gen: cannot write the databases into %s\n", dir.c_str());
    return 1;
  }
  printf("%zu IPv4 and %zu IPv6 cities written into %s\n", kCities.size(), kCitiesV6.size(),
         dir.c_str());
  return 0;
}
