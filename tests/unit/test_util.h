/* Helpers shared by the unit tests: files, standard streams, the spool directory. */
#ifndef KEYSEAL_TEST_UTIL_H
#define KEYSEAL_TEST_UTIL_H

#include <functional>
#include <string>
#include <vector>

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &data);
std::string temp_dir(); // a fresh directory under /tmp, removed at exit
std::vector<std::string> spool_files();
void redirect_stdin(const std::string &input);
/* with_stdout - fn's standard output: captured, or sent to fd when one is given */
std::string with_stdout(const std::function<void()> &fn, int fd = -1);

#endif
