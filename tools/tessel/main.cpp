// SPDX-License-Identifier: Apache-2.0
#include "tools/tessel/CommandLine.h"

int main( int argc, char** argv ) {
   return TesselTool::run( argc, argv );
}
