// One run on several devices of a machine: a process for each, which take micrographs as they become free. Only the parent
// prints, and what it prints is what one process would: lists, standard output and exit status are those of one device.
#pragma once

/// Whether the value of --gid names devices by a list, such as 0,1,3, or by "all", rather than one by its number.
bool names_devices(const char* value);

/// Prepares and picks the run of a command line whose argument argv[value_at] names the devices, a process for each name.
/// A process that fails ends the run: micrographs under way on other devices are finished, the output goes on to where
/// one process would have stopped, and the exit status is that of the process, 128 + N for one ended by signal N.
/// Must be called before this process has used the device: its children could not use it then. Returns the number of
/// micrographs in the list.
int pick_on_devices(int argc, char** argv, int value_at);
