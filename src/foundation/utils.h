// The shared helpers of the library in one include: text, user names, network patterns,
// statistics time slots, allowed paths, file locks and files, the SQLite handle, log and mail
// directories, RSA key files and a few questions about the machine and the cluster. Each header it
// includes says whether its functions may be called from several threads; all of them may, except
// where a header says otherwise.
#ifndef MAILSERVER_FOUNDATION_UTILS_H_
#define MAILSERVER_FOUNDATION_UTILS_H_

#include "foundation/account_db_paths.h"
#include "foundation/antivirus_support.h"
#include "foundation/cidr.h"
#include "foundation/db_handler.h"
#include "foundation/file_lock.h"
#include "foundation/files.h"
#include "foundation/log_paths.h"
#include "foundation/login_map.h"
#include "foundation/mail_dir_path.h"
#include "foundation/map_pattern.h"
#include "foundation/path_check.h"
#include "foundation/round_time.h"
#include "foundation/rsa_keys.h"
#include "foundation/section_file.h"
#include "foundation/service_alive.h"
#include "foundation/strings.h"
#include "foundation/text.h"
#include "foundation/user_names.h"
#include "foundation/utf8.h"

#endif  // MAILSERVER_FOUNDATION_UTILS_H_
