// The main settings database, "mailserver.db": its path and the script that creates every table
// of it at once. The sender quota, the access table, the anti-spam lists and the per-domain
// settings each use a part of it, and whichever of them first finds the file missing creates all
// of it, so they must agree on one script. Constants only: safe from any thread.
#ifndef MAILSERVER_FOUNDATION_MAILSERVER_DB_SCHEMA_H_
#define MAILSERVER_FOUNDATION_MAILSERVER_DB_SCHEMA_H_

inline constexpr char kMailServerDBPath[] = "/var/packages/Quillon-Server/etc/mailserver.db";

inline constexpr char kMailServerDBSchema[] =
    "create table bcc_table(name TEXT, type INTEGER, bcc_to TEXT, domain_id INTEGER NOT NULL "
    "DEFAULT 1);"
    "create unique index bcc_name_index on bcc_table(name, type, domain_id);"
    "create table access_table(name_type INTEGER, name TEXT, type INTEGER, access INTEGER);"
    "create unique index access_name_index on access_table(name_type, name, type);"
    "create table blackwhite_table(name_type INTEGER, name TEXT, type INTEGER, blackwhite "
    "INTEGER);"
    "create unique index blackwhite_name_index on blackwhite_table(name_type, name, type);"
    "create table sender_quota_table(sender TEXT, quota INTEGER);"
    "create unique index sender_quota_index on sender_quota_table(sender);"
    "create table if not exists multi_domain_enable_table(domain_id INTEGER, en_attach INTEGER "
    "DEFAULT 0, en_quota INTEGER DEFAULT 0, en_flow INTEGER DEFAULT 0, en_forward INTEGER DEFAULT "
    "1, en_catch_all INTEGER DEFAULT 0);"
    "create unique index if not exists multi_domain_enable_index on "
    "multi_domain_enable_table(domain_id);"
    "create table if not exists multi_domain_rate_table(domain_id INTEGER, rt_attach INTEGER "
    "DEFAULT 10, rt_quota INTEGER DEFAULT 500, rt_flow INTEGER DEFAULT 2000, rt_mail_size INTEGER "
    "DEFAULT 10, catch_all INTEGER DEFAULT -1);"
    "create unique index if not exists multi_domain_value_index on "
    "multi_domain_rate_table(domain_id);";

#endif  // MAILSERVER_FOUNDATION_MAILSERVER_DB_SCHEMA_H_
