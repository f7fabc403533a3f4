/* Helpers shared by the unit tests: files, standard streams, the spool directory. */
#ifndef KEYSEAL_TEST_UTIL_H
#define KEYSEAL_TEST_UTIL_H

#include <cstdio>
#include <string>
#include <vector>

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &data);
std::string temp_dir(); // fresh directory under /tmp, removed at exit
std::vector<std::string> spool_files();

/* Runs fn with standard input reading `input`; returns what fn wrote to standard output. */
template <typename Fn> std::string with_stdio(const std::string &input, Fn fn);

void redirect_stdin(const std::string &input);
void begin_stdout_capture();
std::string end_stdout_capture();

template <typename Fn> std::string with_stdio(const std::string &input, Fn fn)
{
    redirect_stdin(input);
    begin_stdout_capture();
    fn();
    return end_stdout_capture();
}

#endif
