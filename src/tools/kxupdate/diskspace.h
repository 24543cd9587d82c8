#pragma once

#include <kxupdater/file.h>

#include <QString>

/**
 * Compares what a download, a swap or both will write with what the volumes have free.
 * `download` and `application` are the directories, empty for one that is not written; neither need
 * exist. What a listed file already holds in the download directory is not counted again. Empty
 * when there is room, else a text that names the volume, the bytes needed and those free.
 */
QString SpaceProblem(const updater::FileList& manifest, const QString& download,
                     const QString& application);
