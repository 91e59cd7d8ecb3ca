#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# A build of somebody else without CMake: leaves ./consumer.
set -eu
flags=$(pkg-config --cflags --libs tessel)
# shellcheck disable=SC2086  # the flags are words
${CXX:-g++} -std=c++20 "$(dirname "$0")/../main.cpp" $flags -o consumer
