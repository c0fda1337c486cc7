#pragma once

#include <string>
#include <vector>

// What the test stages and destinations have been through, in order. It lies in a shared library,
// so that the loaded modules and the test program see the same one. Any thread.
namespace Journal {

void Add(const std::string& entry);
std::vector<std::string> GetEntries();
void Clear();

// Stages, destinations and sources that exist.
void CountAlive(int change);
int GetAlive();

// Threads that those have running.
void CountRunning(int change);
int GetRunning();

}  // namespace Journal
