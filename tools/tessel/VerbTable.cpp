// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/VerbTable.h"

#include <algorithm>
#include <array>

namespace TesselTool {

namespace {

constexpr std::array<Word, 8> allWords{ {
   { "PLAN", "The agent's plan, a JSON file", &Arguments::plan },
   { "PLAN|CHUNK", "An agent's plan, or the name of a chunk with its slash", &Arguments::plan },
   { "TABLE", "The table's name", &Arguments::table },
   { "CHIP", "A number from 0 to 255", &Arguments::chip },
   { "KEY", "The key's bytes: hex, or as the plan shows them", &Arguments::key },
   { "RESULT", "The result's bytes, as KEY", &Arguments::result },
   { "NAME.json", "The file to write; it plans a chunk /NAME", &Arguments::file },
   { "FILE", "Lines chip,key,result; - is standard input", &Arguments::file },
} };

constexpr std::array<Option, 12> allOptions{ {
   { "TABLE", "", "This table alone", &Arguments::someTable },
   { "--table", "NAME", "This table alone", &Arguments::someTable },
   { "--chip", "N", "The chip to clear in every table", &Arguments::someChip },
   { "--key", "N", "Bytes of a key, where a chunk is given", &Arguments::keyLength },
   { "--result", "N", "Bytes of a result, where a chunk is given", &Arguments::resultLength },
   { "--as", "FORM", "csv, which load reads, json, or table", &Arguments::form },
   { "--out", "FILE", "Write a picture: FILE.svg or FILE.html", &Arguments::out },
   { "--interval", "SECONDS", "Between two looks; 1 unless given", &Arguments::interval },
   { "--count", "N", "End after so many looks", &Arguments::count },
   { "--keep-going", "", "Load the good lines beside bad ones", &Arguments::keepGoing },
   { "--force", "", "Remove what does not look like a chunk of tables, too", &Arguments::force },
   { "--data", "FILE...", "Files of the registry of MAC address blocks, CSV", &Arguments::data },
} };

constexpr std::array<Verb, 13> allVerbs{ {
   { "init", "Write a plan to start from", "NAME.json", "", "  tessel init l2.json", init },
   { "show",
     "Tables, their ranges and how full they are",
     "PLAN|CHUNK",
     "--table --key --result",
     "  tessel show l2.json\n"
     "  tessel show /l2\n"
     "  tessel show /l2 --table mac --key 6 --result 2",
     show },
   { "dump",
     "The entries of a table in slot order, in the form that load reads",
     "PLAN|CHUNK TABLE",
     "--as --key --result",
     "  tessel dump l2.json mac\n"
     "  tessel dump l2.json mac --as table\n"
     "  tessel --json dump /l2 mac --key 6 --result 2",
     dump },
   { "lookup",
     "The result of one entry",
     "PLAN TABLE CHIP KEY",
     "",
     "  tessel lookup l2.json mac 0 02:00:5e:00:53:01\n"
     "  tessel --json lookup l2.json mac 0 02005e005301",
     lookup },
   { "update",
     "Add an entry, or replace its result",
     "PLAN TABLE CHIP KEY RESULT",
     "",
     "  tessel update l2.json mac 0 02:00:5e:00:53:01 7\n"
     "  tessel update l2.json host 3 192.0.2.1 02:00:5e:00:53:01",
     update,
     true },
   { "delete",
     "Remove an entry",
     "PLAN TABLE CHIP KEY",
     "",
     "  tessel delete l2.json mac 0 02:00:5e:00:53:01",
     deleteEntry,
     true },
   { "load",
     "Add or replace many entries",
     "PLAN TABLE FILE",
     "--keep-going",
     "  echo 0,02:00:5e:00:53:02,8 | tessel load l2.json mac -\n"
     "  tessel dump l2.json mac | tessel load l2.json mac -",
     load,
     true },
   { "clear",
     "Remove the entries of a table, or of a chip in every table",
     "PLAN",
     "TABLE --chip",
     "  tessel clear l2.json mac\n"
     "  tessel clear l2.json --chip 0",
     clear,
     true },
   { "verify",
     "Whether every byte of the tables is sound",
     "PLAN|CHUNK",
     "--table --key --result",
     "  tessel verify l2.json\n"
     "  tessel verify /l2",
     verify },
   { "map",
     "A picture of the tables' slots, by chip",
     "PLAN|CHUNK",
     "TABLE --out --key --result",
     "  tessel map l2.json\n"
     "  tessel map l2.json mac --out l2.html",
     map },
   { "watch",
     "Occupancy, additions and removals as they come; q ends it",
     "PLAN|CHUNK",
     "TABLE --interval --count --key --result",
     "  tessel watch l2.json --count 1\n"
     "  tessel watch l2.json mac --interval 0.5 --count 2",
     watch },
   { "remove",
     "Remove a chunk's name, and with its last user the chunk",
     "PLAN|CHUNK",
     "--force",
     "  tessel remove l2.json",
     remove,
     true },
   { "demo", "Kill an agent, and watch its tables survive", "", "--data", "  tessel demo", demo },
} };

} // namespace

std::span<Verb const> verbs() {
   return allVerbs;
}

Verb const* verbNamed( std::string_view name ) {
   auto const* const found = std::find_if(
      allVerbs.begin(), allVerbs.end(), [ & ]( Verb const& verb ) { return verb.name == name; } );
   return found == allVerbs.end() ? nullptr : found;
}

std::span<Word const> words() {
   return allWords;
}

std::span<Option const> options() {
   return allOptions;
}

} // namespace TesselTool
