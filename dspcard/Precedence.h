// The precedence of the thread that serves the cards over everything else on the PC: a poll that
// comes late by more than a period of a card loses a transfer.
#pragma once

// Gives the calling thread the lowest real-time priority, and keeps in memory what the process has
// touched, so that no page has to come from the disk in the middle of an exchange. What the process
// may not have, it silently goes without (see RLIMIT_RTPRIO and RLIMIT_MEMLOCK).
void takePrecedence();
