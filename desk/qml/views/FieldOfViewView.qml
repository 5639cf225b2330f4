import QtQuick 2.15
import QtQuick.Controls 2.15

// Built next: see the window's plan in docs/desk.md.
Pane {
    Label { text: "FieldOfView" }
}
