#pragma once

class QAbstractItemView;
class QLineEdit;
class QWidget;

// What keeps texts readable on a desktop whose colours they are not made for.

/** Gives the dialog a ground on which the darker fixed colours and the links stand out. */
void ensureLightGround(QWidget *dialog);

/**
 * The same for the rows of a table or a list. Their highlight stays the desktop's, or nearly so if its
 * text is hard to read. To be called anew once the desktop's colours have changed.
 */
void ensureLightRows(QAbstractItemView *view);

/** Makes the placeholder a paler shade of the field's text: some dark desktops leave it black. */
void ensureReadablePlaceholder(QLineEdit *field);
