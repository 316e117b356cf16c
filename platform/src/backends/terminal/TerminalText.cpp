/* The terminal backend's words in the languages the launcher ships. English is the
 * answer for every other locale, "C" included, so it keeps to ASCII: a terminal
 * under such a locale may not show anything else. */
#include "backends/terminal/TerminalText.h"

#include "cf/PlatCF.h"

#include <string>

namespace {

// clang-format off
const PlatTerminalText kTexts[] = {
    {"en",
     "Type the name of a button or its first letter: ",
     "Return: %1", "Esc: %1", "Ctrl-D: close", "; ", ", ",
     "\"%1\" is not one of the answers (%2).",
     "More than one answer begins with \"%1\"; type the whole name."},
    {"de",
     "Geben Sie den Namen einer Schaltfl\u00e4che oder ihren Anfangsbuchstaben ein: ",
     "Eingabetaste: %1", "Esc: %1", "Strg-D: schlie\u00dfen", "; ", ", ",
     "\u201e%1\u201c ist keine der m\u00f6glichen Antworten (%2).",
     "Mehrere Antworten beginnen mit \u201e%1\u201c. Bitte geben Sie den ganzen Namen ein."},
    {"fr",
     "Tapez le nom d\u2019un bouton ou sa premi\u00e8re lettre\u00a0: ",
     "Entr\u00e9e\u00a0: %1", "\u00c9chap\u00a0: %1", "Ctrl-D\u00a0: fermer", "\u00a0; ", ", ",
     "\u00ab\u00a0%1\u00a0\u00bb ne fait pas partie des r\u00e9ponses possibles (%2).",
     "Plusieurs r\u00e9ponses commencent par \u00ab\u00a0%1\u00a0\u00bb\u00a0; tapez le nom en entier."},
    {"es",
     "Escriba el nombre de un bot\u00f3n o su primera letra: ",
     "Intro: %1", "Esc: %1", "Ctrl-D: cerrar", "; ", ", ",
     "\u00ab%1\u00bb no es una de las respuestas posibles (%2).",
     "Hay varias respuestas que empiezan por \u00ab%1\u00bb; escriba el nombre completo."},
    {"it",
     "Digita il nome di un pulsante o la sua iniziale: ",
     "Invio: %1", "Esc: %1", "Ctrl-D: chiudi", "; ", ", ",
     "\u00ab%1\u00bb non \u00e8 tra le risposte possibili (%2).",
     "Pi\u00f9 risposte iniziano con \u00ab%1\u00bb: digita il nome completo."},
    {"ja",
     "\u30dc\u30bf\u30f3\u306e\u540d\u524d\u307e\u305f\u306f\u305d\u306e\u982d\u6587\u5b57\u3092"
     "\u5165\u529b\u3057\u3066\u304f\u3060\u3055\u3044\uff1a",
     "Enter \u30ad\u30fc\uff1a%1", "Esc \u30ad\u30fc\uff1a%1", "Ctrl-D\uff1a\u9589\u3058\u308b",
     "\u3001", "\u3001",
     "\u300c%1\u300d\u306f\u9078\u629e\u80a2\u306b\u3042\u308a\u307e\u305b\u3093\uff08%2\uff09\u3002",
     "\u300c%1\u300d\u3067\u59cb\u307e\u308b\u9078\u629e\u80a2\u304c\u8907\u6570\u3042\u308a\u307e\u3059\u3002"
     "\u540d\u524d\u3092\u3059\u3079\u3066\u5165\u529b\u3057\u3066\u304f\u3060\u3055\u3044\u3002"},
    {"zh_CN",
     "\u8bf7\u8f93\u5165\u6309\u94ae\u540d\u79f0\u6216\u5176\u9996\u5b57\u6bcd\uff1a",
     "\u56de\u8f66\u952e\uff1a%1", "Esc \u952e\uff1a%1", "Ctrl-D\uff1a\u5173\u95ed", "\uff1b", "\u3001",
     "\u201c%1\u201d\u4e0d\u662f\u53ef\u9009\u7684\u56de\u7b54\uff08%2\uff09\u3002",
     "\u6709\u591a\u4e2a\u56de\u7b54\u4ee5\u201c%1\u201d\u5f00\u5934\uff0c\u8bf7\u8f93\u5165\u5b8c\u6574\u540d\u79f0\u3002"},
};
// clang-format on

const PlatTerminalText* Find(const std::string& language) {
    for (const PlatTerminalText& text : kTexts) {
        if (language == text.language) {
            return &text;
        }
    }
    return nullptr;
}

} // namespace

const PlatTerminalText& PlatCurrentTerminalText() {
    std::string locale = PlatCFUserLocale();
    const PlatTerminalText* text = Find(locale);
    if (text == nullptr) {
        text = Find(locale.substr(0, locale.find('_')));
    }
    return text != nullptr ? *text : kTexts[0];
}
