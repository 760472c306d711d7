// Trouble with a card, or with all of them, told to whoever looks at the console and to the client.
// For any thread.
#pragma once

// Writes the console line "ERROR! " with the description and queues an error packet with the code
// (an ErrorCode) and the first 50 characters of the description.
void reportError(int code, const char* description);
