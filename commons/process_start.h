#pragma once

/// What a program of ours does first.

/// Fills closed standard streams: a connection or a document that got the number of one
/// would receive what is meant for the console.
void occupyClosedStandardStreams();

/// Passwords do not belong into a core file. What this process starts inherits it.
void forbidCoreFiles();
