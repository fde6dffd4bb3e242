/// Fills the places of the standard streams that a process was started without.
#ifndef RV_CLI_STANDARD_DESCRIPTORS_H
#define RV_CLI_STANDARD_DESCRIPTORS_H

/// Opens a stand-in for each of the descriptors 0, 1 and 2 that is closed. Otherwise the next descriptors
/// that are opened would get their numbers, and what is meant for the user would be written into them: into
/// the connection to the daemon, for one.
///
/// To this process a stand-in is like a closed descriptor: it can be neither read nor written. Programs that
/// it runs do not inherit it and find the descriptor closed. Without a free descriptor nothing changes.
/// Called first thing by main, before anything else is opened.
void fillStandardDescriptors() noexcept;

#endif
