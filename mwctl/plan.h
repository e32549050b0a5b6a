/* What a record that is being made is to hold, and what of it is still missing. */
#ifndef MWCTL_PLAN_H
#define MWCTL_PLAN_H

#include "mwctl/writer.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace mwctl
{

/* Values by key. */
using Texts = std::map<std::string, std::string, std::less<>>;

/* "KEY=VALUE..." taken apart; refuses a key that is given twice. */
Texts take_apart(const std::vector<std::string> &assignments);

/*
 * The values of a new record in the order in which they are written: the one that decides whether the record is
 * published at all is first if it says how, last if it says that. Takes its keys out of `given`; what is not given is
 * as in `usual`, else as the table of attributes says. Optional values are there only if they are given.
 */
std::vector<Change> make_plan(Kind kind, bool snapshot, Texts &given, const Texts &usual);

/* Refuses what nobody took out of `given`. */
void require_all_taken(const Texts &given, std::string_view what);

/*
 * What of the plan the record lacks. A value that is there stays, and refuses the plan if another one was given for it.
 * One that is faulty is written again if it was given, else the plan is refused too.
 */
std::vector<Change> missing_values(const HeldRecord &held, const std::string &directory, const RecordName &record,
                                   const std::vector<Change> &plan);

/* Makes what is missing of the datastore and, unless `uid` is 0, its link to that node. Returns what it did. */
std::vector<std::string> make_datastore(const Settings &settings, const RecordName &record,
                                        const std::vector<Change> &plan, uint32_t uid);

/* The plan of a datastore of which nothing is said but its name. */
std::vector<Change> usual_datastore(const RecordName &record);

} // namespace mwctl

#endif
