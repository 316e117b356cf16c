/* The terminal backend's own words (its prompt, hints and replies) in the user's
 * language. They are compiled into the layer: they belong to no application's
 * bundle, and the terminal must be able to ask even when a bundle is missing or
 * broken. "%1" and "%2" stand for the texts the backend puts in. */
#ifndef PLATFORM_TERMINALTEXT_H
#define PLATFORM_TERMINALTEXT_H

struct PlatTerminalText {
    const char* language;   /* as in an .lproj folder name: "de", "zh_CN" */
    const char* prompt;     /* asks for an answer, after the key hints */
    const char* returnHint; /* %1: the default button */
    const char* escapeHint; /* %1: the cancel button */
    const char* closeHint;  /* end of input closes the window */
    const char* hintSeparator;
    const char* answerSeparator;
    const char* unknownAnswer;   /* %1: what was typed, %2: the answers */
    const char* ambiguousAnswer; /* %1: the letter typed */
};

/* The table for the user's language, chosen as bundles choose their .lproj
 * folders (LC_ALL, LC_MESSAGES, LANG: the first one set; language and region,
 * then the language alone), else English. */
const PlatTerminalText& PlatCurrentTerminalText();

#endif
