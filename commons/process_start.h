#pragma once

/// What each program of this project does first.

/// Opens closed standard streams. Otherwise a connection or a document could get the number of one
/// and receive text that is meant for the console.
void occupyClosedStandardStreams();

/// Disables core files, which could contain passwords. Child processes inherit this.
void forbidCoreFiles();
