// The numbers the communicator and the API exchange: the result codes of the communicator's
// operations, and the status codes that the communicator hands to the API's StatusNotificationCB
// (which the API passes on to its callback, and the presentation maps to its tile).
#ifndef TIDEWAY_COMM_STATUSCODES_H_
#define TIDEWAY_COMM_STATUSCODES_H_

#include <stdint.h>

// Results of the message layer and the communicator: 0, the system's 32-bit failure patterns
// (never sign-extended, so positive in a 64-bit status), or small negative codes.
constexpr uint32_t kCommFail = 0x80004005;  // general failure
constexpr uint32_t kCommNotImplemented = 0x80004001;
constexpr uint32_t kCommInvalidArg = 0x80070057;   // bad argument
constexpr uint32_t kCommOutOfMemory = 0x8007000E;  // allocation failed
constexpr int kCommNoConnection = -1;              // a connection attempt is over or failed
constexpr int kCommSendFailed = -9998;             // a packet could not be built or sent

// Statuses handed to StatusNotificationCB. The state-byte ones are named by the bit that gives
// them: what the agent means by each bit is not this module's business.
constexpr uint32_t kStatusStateClear = 0;  // state byte 0, and the middle of 6,0,6 and 2,0,2
constexpr uint32_t kStatusServiceStopped = 1;
constexpr uint32_t kStatusStateBit01 = 2;
constexpr uint32_t kStatusStateBit02 = 3;
constexpr uint32_t kStatusStateBit04 = 4;
constexpr uint32_t kStatusStateBit10 = 5;
constexpr uint32_t kStatusStateBit08 = 6;
constexpr uint32_t kStatusConnectionOver = 8;
constexpr uint32_t kStatusConnected = 9;
constexpr uint32_t kStatusTowerChangeFailed = 10;
constexpr uint32_t kStatusTowerChanged = 11;
constexpr uint32_t kStatusDctFailed = 12;
constexpr uint32_t kStatusDctChanged = 13;
constexpr uint32_t kStatusStatsFailed = 14;
constexpr uint32_t kStatusStatsStarted = 15;
constexpr uint32_t kStatusStateBit20 = 16;
constexpr uint32_t kStatusStateBit40 = 17;

#endif  // TIDEWAY_COMM_STATUSCODES_H_
