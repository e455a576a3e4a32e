#pragma once

class CommandLine;

// Each adds a group of verbs, which stands in a file of its own with their options.

void addQueryVerbs(CommandLine& line);
void addStubVerbs(CommandLine& line);
void addArchiveVerbs(CommandLine& line);
void addRecallVerb(CommandLine& line);
void addStoreVerbs(CommandLine& line);
void addWatchVerbs(CommandLine& line);
void addLustreVerbs(CommandLine& line);
void addScanVerb(CommandLine& line);
void addServiceVerbs(CommandLine& line);
