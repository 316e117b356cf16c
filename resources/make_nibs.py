#!/usr/bin/env python3
"""Writes the launcher's nib "main" for every language, <lang>.lproj/main.nib/objects.xib,
in Interface Builder's Carbon format. The windows are the same in every language; the
words differ, and so do the buttons' widths. The written files are what ships.

    python3 resources/make_nibs.py resources
"""
import os
import sys
import unicodedata
from xml.sax.saxutils import escape

WORDS = {
    "en": {
        "box": "Vantorel Installer",
        "install": "Install",
        "open": "Open Vantorel",
        "progress": "Installing Vantorel",
        "copying": "Copying the Vantorel installer to this computer\u2026",
    },
    "de": {
        "box": "Vantorel-Installationsprogramm",
        "install": "Installieren",
        "open": "Vantorel \u00f6ffnen",
        "progress": "Vantorel wird installiert",
        "copying": "Das Installationsprogramm von Vantorel wird auf diesen Computer kopiert \u2026",
    },
    "fr": {
        "box": "Programme d\u2019installation de Vantorel",
        "install": "Installer",
        "open": "Ouvrir Vantorel",
        "progress": "Installation de Vantorel",
        "copying": "Copie du programme d\u2019installation de Vantorel sur cet ordinateur\u2026",
    },
    "es": {
        "box": "Instalador de Vantorel",
        "install": "Instalar",
        "open": "Abrir Vantorel",
        "progress": "Instalando Vantorel",
        "copying": "Copiando el instalador de Vantorel en este ordenador\u2026",
    },
    "it": {
        "box": "Programma di installazione di Vantorel",
        "install": "Installa",
        "open": "Apri Vantorel",
        "progress": "Installazione di Vantorel",
        "copying": "Copia del programma di installazione di Vantorel su questo computer\u2026",
    },
    "ja": {
        "box": "Vantorel \u30a4\u30f3\u30b9\u30c8\u30fc\u30e9",
        "install": "\u30a4\u30f3\u30b9\u30c8\u30fc\u30eb",
        "open": "Vantorel \u3092\u958b\u304f",
        "progress": "Vantorel \u3092\u30a4\u30f3\u30b9\u30c8\u30fc\u30eb\u4e2d",
        "copying": "Vantorel \u306e\u30a4\u30f3\u30b9\u30c8\u30fc\u30e9\u3092\u3053\u306e\u30b3\u30f3\u30d4\u30e5\u30fc\u30bf"
        "\u306b\u30b3\u30d4\u30fc\u3057\u3066\u3044\u307e\u3059\u2026",
    },
    "zh_CN": {
        "box": "Vantorel \u5b89\u88c5\u5668",
        "install": "\u5b89\u88c5",
        "open": "\u6253\u5f00 Vantorel",
        "progress": "\u6b63\u5728\u5b89\u88c5 Vantorel",
        "copying": "\u6b63\u5728\u5c06 Vantorel \u5b89\u88c5\u5668\u62f7\u8d1d\u5230\u8fd9\u53f0\u7535\u8111\u2026",
    },
}

# Layout, in points. The message has room for five lines of the longest language.
WIDTH = 500
MARGIN = 20
ICON = 64
TEXT_LEFT = MARGIN + ICON + MARGIN
BUTTON_HEIGHT = 28
BUTTON_GAP = 12
BOX_TEXT_BOTTOM = 148
BOX_HEIGHT = BOX_TEXT_BOTTOM + MARGIN + BUTTON_HEIGHT + MARGIN
PROGRESS_HEIGHT = MARGIN + ICON + MARGIN
SCREEN_LEFT = (1024 - WIDTH) // 2

MOVABLE_MODAL_CLASS = 4
DEFAULT_BUTTON, CANCEL_BUTTON = 1, 2


def button_width(title):
    """Room for the title at the system font's size, wide characters counting double."""
    ink = sum(14 if unicodedata.east_asian_width(c) in "WF" else 8 for c in title)
    return max(96, (ink + 32 + 3) // 4 * 4)


def rect(top, left, bottom, right):
    return f"{top} {left} {bottom} {right} "


class Archive:
    """Objects numbered in the order they are made; File's Owner is 1."""

    def __init__(self):
        self.next_id = 100
        self.parents = {}  # id -> parent id
        self.windows = []  # (name, id, lines)

    def new_id(self, parent):
        self.next_id += 1
        self.parents[self.next_id] = parent
        return self.next_id

    def view(self, parent, cls, top, left, bottom, right, signature, members):
        oid = self.new_id(parent)
        lines = [f'<object class="{cls}" id="{oid}">',
                 f'  <string name="bounds">{rect(top, left, bottom, right)}</string>',
                 f'  <string name="viewFrame">{left} {top} {right - left} {bottom - top} </string>',
                 f'  <ostype name="controlSignature">{signature}</ostype>',
                 '  <int name="controlID">1</int>']
        lines += ["  " + m for m in members]
        return lines + ["</object>"]

    def window(self, name, title, height, top, views, flags):
        wid = self.new_id(1)
        rid = self.new_id(wid)
        lines = [f'<object class="IBCarbonWindow" id="{wid}">',
                 f'  <string name="windowRect">{rect(top, SCREEN_LEFT, top + height, SCREEN_LEFT + WIDTH)}</string>',
                 f'  <string name="title">{escape(title)}</string>',
                 f'  <object name="rootControl" class="IBCarbonRootControl" id="{rid}">',
                 f'    <string name="bounds">{rect(0, 0, height, WIDTH)}</string>',
                 f'    <string name="viewFrame">0 0 {WIDTH} {height} </string>',
                 f'    <array count="{len(views)}" name="subviews">']
        for make in views:
            lines += ["      " + line for line in make(self, rid)]
        lines += ["    </array>", "  </object>"]
        lines += ["  " + f for f in flags]
        self.windows.append((name, wid, lines + ["</object>"]))

    def text(self):
        nested = sorted(i for i, p in self.parents.items() if p != 1)
        top = [wid for _, wid, _ in self.windows]
        out = ['<?xml version="1.0" standalone="yes"?>',
               '<object class="NSIBObjectData">',
               '  <string name="targetFramework">IBCarbonFramework</string>',
               '  <object name="rootObject" class="NSCustomObject" id="1">',
               '    <string name="customClass">NSApplication</string>',
               '  </object>',
               f'  <array count="{len(top) + len(nested)}" name="allObjects">']
        for _, _, lines in self.windows:
            out += ["    " + line for line in lines]
        out += [f'    <reference idRef="{i}"/>' for i in nested]
        out += ["  </array>", f'  <array count="{len(top) + len(nested)}" name="allParents">']
        out += [f'    <reference idRef="{self.parents[i]}"/>' for i in top + nested]
        names = [("Files Owner", 1)] + sorted((name, wid) for name, wid, _ in self.windows)
        out += ["  </array>", f'  <dictionary count="{len(names)}" name="nameTable">']
        for name, oid in names:
            out += [f"    <string>{name}</string>", f'    <reference idRef="{oid}"/>']
        out += ["  </dictionary>", f'  <unsigned_int name="nextObjectID">{self.next_id + 1}</unsigned_int>',
                "</object>", ""]
        return "\n".join(out)


def logo(signature):
    return lambda a, parent: a.view(parent, "IBCarbonImageView", MARGIN, MARGIN, MARGIN + ICON, MARGIN + ICON,
                                     signature, ['<string name="imageName">Installer.png</string>'])


def message(a, parent):
    return a.view(parent, "IBCarbonStaticText", MARGIN, TEXT_LEFT, BOX_TEXT_BOTTOM, WIDTH - MARGIN, "MSG1", [])


def button(signature, title, kind, right):
    """A button in the bottom row whose right edge stands right points from the window's left."""
    def make(a, parent):
        top = BOX_TEXT_BOTTOM + MARGIN
        return a.view(parent, "IBCarbonButton", top, right - button_width(title), top + BUTTON_HEIGHT, right,
                      signature, [f'<string name="title">{escape(title)}</string>', f'<int name="buttonType">{kind}</int>'])
    return make


def nib(words):
    a = Archive()
    box_flags = ['<boolean name="hasCollapseBox">FALSE</boolean>',
                 '<boolean name="hasHorizontalZoom">FALSE</boolean>',
                 '<boolean name="isResizable">FALSE</boolean>',
                 '<boolean name="hasVerticalZoom">FALSE</boolean>',
                 '<boolean name="compositing">TRUE</boolean>']
    right = WIDTH - MARGIN
    left_of_default = right - button_width(words["install"]) - BUTTON_GAP
    for name in ("MessageBox", "MessageBox_Installed"):
        a.window(name, words["box"], BOX_HEIGHT, 160, [
            logo("logo"), message,
            button("NO11", words["open"], CANCEL_BUTTON, left_of_default),
            button("YES1", words["install"], DEFAULT_BUTTON, right),
        ], box_flags)
    a.window("WarnningBox_Installed", words["box"], BOX_HEIGHT, 160, [
        logo("logo"), message,
        button("YES2", words["open"], DEFAULT_BUTTON, right),
    ], box_flags)

    def copying(a, parent):
        return a.view(parent, "IBCarbonStaticText", MARGIN, TEXT_LEFT, MARGIN + 40, WIDTH - MARGIN, "TXT1",
                      [f'<string name="title">{escape(words["copying"])}</string>'])

    def bar(a, parent):
        top = MARGIN + 48
        return a.view(parent, "IBCarbonProgressBar", top, TEXT_LEFT, top + 16, WIDTH - MARGIN, "prog",
                      ['<boolean name="indeterminate">TRUE</boolean>'])

    a.window("ProgressWindow", words["progress"], PROGRESS_HEIGHT, 200, [logo("copy"), copying, bar], [
        '<boolean name="hasCloseBox">FALSE</boolean>',
        '<boolean name="isResizable">FALSE</boolean>',
        '<boolean name="compositing">TRUE</boolean>',
        f'<int name="carbonWindowClass">{MOVABLE_MODAL_CLASS}</int>',
    ])
    return a.text()


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.abspath(__file__))
    for language, words in WORDS.items():
        folder = os.path.join(out, f"{language}.lproj", "main.nib")
        os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, "objects.xib"), "w", encoding="utf-8") as f:
            f.write(nib(words))


if __name__ == "__main__":
    main()
