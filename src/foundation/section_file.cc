#include "foundation/section_file.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/log.h"
#include "kolt/str.h"

int ReplaceTabToSpace(const char *in, char *out, unsigned long size) {
  if (in == nullptr || out == nullptr || size == 0) return -1;
  unsigned long i = 0;
  for (; i + 1 < size && in[i] != '\0'; ++i) out[i] = in[i] == '\t' ? ' ' : in[i];
  out[i] = '\0';
  return static_cast<int>(i);
}

int ParseReadLine(char *line, KLIBSZLIST **list) {
  if (line == nullptr || list == nullptr) return -1;
  if (*list == nullptr) {
    *list = KLIBCSzListAlloc(0);
    if (*list == nullptr) return -1;
  } else {
    KLIBCSzListRemoveAll(*list);
  }
  int words = 0;
  const char *p = line;
  for (;;) {
    while (*p != '\0' && isspace(static_cast<unsigned char>(*p))) ++p;
    if (*p == '\0') break;
    const char *start = p;
    while (*p != '\0' && !isspace(static_cast<unsigned char>(*p))) ++p;
    if (KLIBCSzListPush(list, std::string(start, p - start).c_str()) < 0) return -1;
    ++words;
  }
  return words;
}

int GetSectionContent(const char *file, const char *section, KLIBSZLIST **list) {
  if (file == nullptr || section == nullptr || list == nullptr) {
    maillog(3, "%s:%d Bad Parameter", QSV_FILE, __LINE__);
    return -1;
  }
  FILE *in = fopen(file, "re");
  if (in == nullptr) {
    maillog(3, "%s:%d Open %s fail", QSV_FILE, __LINE__, file);
    return -1;
  }
  const std::string header = std::string("[") + section + "]";
  bool inSection = false;
  int count = 0;
  int result = 0;
  char *raw = nullptr;
  size_t rawSize = 0;
  ssize_t length;
  while ((length = getline(&raw, &rawSize, in)) >= 0) {
    std::string line(static_cast<size_t>(length) + 1, '\0');
    ReplaceTabToSpace(raw, &line[0], line.size());
    if (KLIBCStrTrimSpace(&line[0], 0) < 0) {
      maillog(3, "%s:%d KLIBCStrTrimSpace : %s fail", QSV_FILE, __LINE__, raw);
      result = -1;
      break;
    }
    line.resize(strlen(line.c_str()));
    if (line.empty() || line[0] == '#') continue;
    if (line.front() == '[' && line.back() == ']') {
      inSection = line == header;
      continue;
    }
    if (!inSection) continue;
    if (KLIBCSzListPush(list, line.c_str()) < 0) {
      maillog(3, "%s:%d out of memory", QSV_FILE, __LINE__);
      result = -1;
      break;
    }
    ++count;
  }
  free(raw);
  fclose(in);
  return result < 0 ? -1 : count;
}
