#pragma once

// The result codes that clients see in {"cmd":"result","error":code} and drive processes answer
// with.
enum Result : int {
  kOk = 0,
  kNoDrive = -1,  // no drive or no usable protocol module; an incomplete command
  kMountFailed = -5,
  kDriveUnreachable = -6,  // the drive process could not be started or reached
  kAccessDenied = 10,      // the three ways in which connecting a protocol fails
  kConnectFailed = 11,
  kPathNotFound = 12,

  kInitRefused = 0,  // the answer to "init" has codes of its own
  kInitAccepted = 1,
};
