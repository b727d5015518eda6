/*
 * MD5 as the system's md5sum tool computes it: a digest from outside the
 * module and outside the board models, to check theirs against.
 */
#pragma once

#include <string>

namespace avmtest {

// Writes `bytes` to dir/name (replacing it) and returns the path.
std::string writeBytes(const std::string &dir, const std::string &name, const std::string &bytes);

// The 32 lower-case hex digits md5sum prints for the file at `path`, ""
// when md5sum cannot be run.
std::string md5sumOfFile(const std::string &path);

// md5sum of `bytes`, through a scratch file in `dir`.
std::string md5sumOfBytes(const std::string &bytes, const std::string &dir);

} // namespace avmtest
