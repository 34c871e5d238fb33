#pragma once

/** How a line of the log is meant. It travels as a plain integer and chooses the line's colour. */
enum LogLevel : int {
    LogInformation = 0,
    LogWarning = 1,
    LogError = 2,
    LogProtocol = 3, ///< protocol chatter of the worker, shown on request only, and background notes
};
