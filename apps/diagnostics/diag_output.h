// The files a program writes besides its standard output, by the rules of
// its captures: written whole or not at all, never over a file the run
// reads, every write error told.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

// The files a run reads, by identity (device and inode), so that no path
// naming one of them, however spelt, is written.
class DiagInputs {
public:
    // Notes the file path names; a path that names nothing is no input.
    void add(const char* path);
    // Notes the file open on descriptor fd (standard input, say).
    void add_descriptor(int fd);
    // The input that path names, or null.
    const char* holding(const char* path) const;

private:
    struct Input {
        dev_t device;
        ino_t inode;
        std::string path;
    };
    std::vector<Input> inputs_;
};

// One output file. Its text goes to a temporary file beside it, which
// takes the output's name only when every byte is written and the file
// closed without error; a failure, or dropping the output before that,
// removes the temporary file and leaves whatever the path named alone.
// Every failure is one line on the error stream: "PROGRAM: PATH: REASON".
class DiagOutput {
public:
    DiagOutput(const char* program, FILE* err) : program_(program), err_(err) {}
    ~DiagOutput() { discard(); }
    DiagOutput(const DiagOutput&) = delete;
    DiagOutput& operator=(const DiagOutput&) = delete;

    // Refuses a path that names an input or a folder, then creates the
    // temporary file; the folder must exist.
    bool open(const std::string& path, const DiagInputs& inputs);
    // Where the text goes while the output is open (null before).
    FILE* file() const { return file_; }
    // Writes out what is buffered and closes the file: complete under its
    // temporary name.
    bool finish();
    // Renames a finished file into place.
    bool publish();
    // Both: the file complete in its place.
    bool commit() { return finish() && publish(); }
    // Drops the output: the temporary file is removed.
    void discard();
    // ok, or false after telling the system's reason for a failed write
    // (errno) and dropping the output.
    bool checked(bool ok);

private:
    bool fail(const char* reason);

    const char* program_;
    FILE* err_;
    std::string path_, temporary_;
    FILE* file_ = nullptr;
};

// Makes folder and the folders above it that it lacks; false after a line
// on err naming it and the system's reason.
bool diag_folder_make(const std::string& folder, const char* program, FILE* err);
