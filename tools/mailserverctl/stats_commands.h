// The commands of mailserverctl over the statistics and the rankings:
//
//   stats show hour|day|week|month [--at TIME]
//                      the points of the chart that ends at TIME (default now): time and the
//                      five counts (sent, received, bounced, resent, rejected), then the top five
//                      names of each for the last point
//   stats chart hour|day|week|month --png FILE [--at TIME]
//                      the same drawn by gnuplot: the five counts over time above, the top five
//                      lists of the last point below
//   stats security --png FILE [--at TIME] [--days N]
//                      the threats by day and type, and where they came from, from the threat
//                      tables of the aggregation job
//   stats count --from TIME --to TIME
//                      counts every hour of the span as the aggregation job does in its passes
//                      (at most 400 days)
//   stats threats      one threat pass of the aggregation job, from the present hour on
//   analysis top senders|recipients|sender-domains|recipient-domains|refused
//                [--status send|receive|bounce|resend|local-receive] [--from TIME] [--to TIME]
//                [--name PIECE] [--limit N] [--offset N] [--count]
//
// TIME is YYYY-MM-DD, YYYY-MM-DDTHH:MM:SS (local time) or seconds since 1970. FILE is an
// absolute path; it is replaced whole. Names from the logs are printed with control characters
// escaped and reach gnuplot only as data, never as part of its script.
#ifndef MAILSERVER_TOOLS_MAILSERVERCTL_STATS_COMMANDS_H_
#define MAILSERVER_TOOLS_MAILSERVERCTL_STATS_COMMANDS_H_

#include <string>
#include <vector>

namespace mailserverctl {

// args: the words after "stats".
int StatsCommand(const std::vector<std::string> &args);
// args: the words after "analysis".
int AnalysisCommand(const std::vector<std::string> &args);

}  // namespace mailserverctl

#endif  // MAILSERVER_TOOLS_MAILSERVERCTL_STATS_COMMANDS_H_
