// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The genres of EN 300 468 as they begin in the guide, with colour, symbol and a word of their own.
const GENRES = [
  { key: "film", label: "Film", begins: "movie",
    path: "M3.5 3h9A1.5 1.5 0 0 1 14 4.5v7A1.5 1.5 0 0 1 12.5 13h-9A1.5 1.5 0 0 1 2 11.5v-7A1.5 1.5 0 0 1 3.5 3zM5 3v10M11 3v10M2 8h3M11 8h3" },
  { key: "news", label: "News", begins: "news",
    path: "M3.5 3h9A1.5 1.5 0 0 1 14 4.5v7A1.5 1.5 0 0 1 12.5 13h-9A1.5 1.5 0 0 1 2 11.5v-7A1.5 1.5 0 0 1 3.5 3zM4.5 6h7M4.5 8.2h7M4.5 10.4h4" },
  { key: "show", label: "Show", begins: "show",
    path: "M8 1.5a2.5 2.5 0 0 1 2.5 2.5v3a2.5 2.5 0 0 1-5 0V4A2.5 2.5 0 0 1 8 1.5zM3 7.5a5 5 0 0 0 10 0M8 12.5v2.5" },
  { key: "sport", label: "Sport", begins: "sport",
    path: "M8 2a6 6 0 1 0 0 12A6 6 0 1 0 8 2zM2 8h12M8 2c-3.3 3.5-3.3 8.5 0 12M8 2c3.3 3.5 3.3 8.5 0 12" },
  { key: "child", label: "Children", begins: "children",
    path: "M8 2a6 6 0 1 0 0 12A6 6 0 1 0 8 2zM5.3 9.5a3 3 0 0 0 5.4 0M6 6v.4M10 6v.4" },
  { key: "music", label: "Music", begins: "music",
    path: "M6 12V3.5L13 2v8.5M4.3 10.2a1.8 1.8 0 1 0 0 3.6 1.8 1.8 0 1 0 0-3.6zM11.3 8.7a1.8 1.8 0 1 0 0 3.6 1.8 1.8 0 1 0 0-3.6z" },
  { key: "arts", label: "Culture", begins: "arts",
    path: "M2.5 13.5l1.5-4 7-7L13.5 5l-7 7zM9.3 4.2l2.5 2.5" },
  { key: "social", label: "Society", begins: "social",
    path: "M2 14V6.5l6-4 6 4V14zM5.5 14V9M8 14V9M10.5 14V9" },
  { key: "science", label: "Knowledge", begins: "education",
    path: "M6.2 2v4.5L2.7 13a.8.8 0 0 0 .7 1h9.2a.8.8 0 0 0 .7-1L9.8 6.5V2M5 2h6M4.5 10h7" },
  { key: "leisure", label: "Leisure", begins: "leisure",
    path: "M8 14C3 13 2 7 3.5 2.5 9 2 14 4 13 10c-1 3-3.5 4-5 4zM4.5 3.5l5 6" },
  { key: "special", label: "Special", begins: "special",
    path: "M8 1.8L14.2 8 8 14.2 1.8 8z" },
];
const NO_GENRE = { key: "none", label: "", begins: "" };

const genreOf = (names) => {
  for (const name of names) {
    const small = String(name).toLowerCase();
    const genre = GENRES.find((one) => small.startsWith(one.begins));
    if (genre) {
      return genre;
    }
  }
  return NO_GENRE;
};

// A path of its own and no reference to one: a browser makes thousands of these.
const genreIcon = (genre) => {
  if (genre === NO_GENRE) {
    return "";
  }
  const path = document.createElementNS(SVG, "path");
  path.setAttribute("d", genre.path);
  return symbol(path);
};
