// SPDX-License-Identifier: Apache-2.0
#ifndef STAND_IN_AGENT_STAND_IN_H_
#define STAND_IN_AGENT_STAND_IN_H_

#include <deque>
#include <string>
#include <string_view>
#include <vector>

// Replaces the platform where it would reach an agent: a proxy connects inside its connect call,
// and what its ports yield comes from the program. Parcels are the platform's own, with real bytes.
namespace agent_stand_in {

// What either port yields, message by message; with none left, the agent is gone.
extern std::deque<std::string> messages;

// The contents of the parcels that the library has sent, in order.
extern std::vector<std::string> sent;

// Has the library read one message from its callback port; nothing happens without a connection.
void Push(std::string_view message);

// Tells the library that its connection is gone; nothing happens without one.
void Lose();

// Disconnects, forgets all of the above, and releases the records that conversions keep on purpose,
// so that whatever is left is a leak.
void EndInput();

}  // namespace agent_stand_in

#endif  // STAND_IN_AGENT_STAND_IN_H_
