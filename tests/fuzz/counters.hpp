#pragma once

// Coverage of a child process for libFuzzer. The library can be brought up once in a process, so every input runs in a
// child; what the child covers is carried back into the counters that libFuzzer reads in the parent.
namespace oxfuzz {

// Before the first child is made.
void share_counters();

// In the child: counts from zero, and the counts reach the parent however the child ends, short of SIGKILL.
void count_for_parent();

// In the child, right before it ends by itself.
void hand_over();

// In the parent, when the child has ended.
void take_over();

}  // namespace oxfuzz
