// recognizers/preparation.h
// Building the recognizers' tables and patterns before the first page needs
// them.
#pragma once

// Builds every recognizer's tables and compiles the patterns they search
// with (a term's pattern waits for the first page that holds the term's
// first word). Each is built once per process, whoever comes first: a recognizer
// that needs a table this call has not reached yet builds it itself, and one
// that needs the table this call is building waits for it, so nothing is
// built twice. The tables are built in the reverse of the order a page is
// searched in (amounts first, currencies last): run on a second thread while
// the first opens a document, the two meet halfway. Thread-safe; a later call
// returns at once.
void lmPrepareRecognizers();
