"""Reads the public header: what its comments say, of the whole and of each function."""

import re
from collections import namedtuple

# A text in a page: a paragraph, or, with a term, an item of a list; level is how deep in lists.
Text = namedtuple('Text', 'level term text')
# Functions that share one comment; group is the heading that they stand under.
Entry = namedtuple('Entry', 'names declarations group texts')
Header = namedtuple('Header', 'sections types entries')

WIDTH = 100  # that the comments are wrapped at
ITEM = re.compile(r'(?:(".*?") {1,}|(\S.*?) {2,})(\S.*)')


def comment_lines(comment):
    """The lines of a comment, without what makes it one."""
    body = re.sub(r'\s*\*/$', '', comment)
    return [line[3:].rstrip() for line in body.splitlines()]


def ends_paragraph(line, following):
    """Whether a line has been broken on purpose: the next word would have had a place in it."""
    fits = len(line) + len(' * ') + 1 + len(following.split()[0]) <= WIDTH
    return fits and line[-1] in '.:' and not following[0].islower()


def texts_of(lines):
    """Paragraphs and lists, which are told apart by how far their lines stand to the right."""
    texts, items, previous = [], [], ''
    for line in lines:
        words = line.strip()
        if not words:
            previous = ''
            continue
        indent = len(line) - len(line.lstrip())
        item = ITEM.fullmatch(words) if indent >= 2 else None
        if item and items and indent > items[-1] + 8:
            item = None  # the text of an item goes on, and has a gap in it
        while items and (indent < items[-1] or item and indent == items[-1] or indent == 0):
            items.pop()
            previous = ''
        if item:
            items.append(indent)
            texts.append(Text(len(items) - 1, item.group(1) or item.group(2), item.group(3)))
        elif previous and not (not items and ends_paragraph(previous, words)):
            texts[-1] = texts[-1]._replace(text=texts[-1].text + ' ' + words)
        else:
            texts.append(Text(len(items), None, words))
        previous = line
    return texts


def sections_of(lines):
    """Yields (title, texts): "Threads.  The library starts none." and what follows it, further right."""
    title, body = None, []
    for line in lines:
        begin = re.match(r'([A-Z]\w+)([.:]) +(?=\S)', line)
        if begin or title is None and not body:
            if body:
                yield title, texts_of(body)
            title, body = (begin.group(1), [line[begin.end():]]) if begin else (None, [line])
        else:
            body.append(line if title is None else line.strip())
    yield title, texts_of(body)


def declarations_of(code, beginning):
    """The declarations that begin so, each in one line."""
    found = re.findall(beginning + r'[^;]*;', code)
    return [re.sub(r'\s+', ' ', text.replace('ZELVO_API ', '').replace(' ZELVO_NOEXCEPT', ''))
            for text in found]


def read(path):
    """The Header that stands in a file."""
    with open(path, encoding='utf-8') as file:
        pieces = re.split(r'(?m)^(/\*.*?\*/)$', file.read(), flags=re.S)
    sections = list(sections_of(comment_lines(pieces[1])))
    types, entries, group = [], [], ''
    for comment, code in zip(pieces[3::2], pieces[4::2]):
        heading = re.match(r'/\* ---- (.*) ---- \*/', comment)
        if heading:
            group = heading.group(1)
            continue
        functions = declarations_of(code, 'ZELVO_API')
        texts = texts_of(comment_lines(comment))
        if functions:
            names = [re.search(r'(\w+)\(', text).group(1) for text in functions]
            entries.append(Entry(names, functions, group, texts))
        else:
            types.append(Entry([], declarations_of(code, 'typedef'), group, texts))
    return Header(sections, types, entries)


def summary(entry):
    """What an entry's first sentence says, for the head of its page."""
    words = re.match(r'.*?(?=[.:;](?: |$))', entry.texts[0].text).group()
    return words[0].lower() + words[1:]
