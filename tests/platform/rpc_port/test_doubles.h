// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_PLATFORM_RPC_PORT_TEST_DOUBLES_H_
#define TESTS_PLATFORM_RPC_PORT_TEST_DOUBLES_H_

#include <string>

// What this process is when nothing else is said.
constexpr char kOwnAppId[] = "org.example.self";

// What the installed packages say about the next client, and whom they were last asked about.
extern int check_client_result;
extern std::string checked_server;
extern std::string checked_client;

// What accepting fails with; 0 if it works.
extern int accept_failure;

#endif  // TESTS_PLATFORM_RPC_PORT_TEST_DOUBLES_H_
