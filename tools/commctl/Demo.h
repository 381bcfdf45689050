#pragma once

// Drives the library against simulated devices on every link that can be made
// on this machine and prints a transcript. Returns the process exit status.
int runDemo();
