#pragma once

namespace kestrova::meet {

/// What the program's end means to a script.
enum ExitCode : int {
  exitGood = 0,
  exitNoMedia = 1,    ///< fewer pictures or sounds came than were expected
  exitUsage = 2,      ///< bad arguments
  exitNotJoined = 3,  ///< the service can't be reached, or the join failed
  exitRefused = 4,    ///< the service refused the token
  exitEnded = 5,      ///< somebody else ended the meeting, or removed this participant
  exitNotSaid = 6,    ///< a line of a script could not be done
  exitInterrupted = 130,
  exitTerminated = 143,
};

}  // namespace kestrova::meet
