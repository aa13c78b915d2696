// What the terminal shows of a recorder: a table that is drawn anew each second, or a line where it is none.
#pragma once

class Recorder;

class Display
{
public:
    Display();
    bool isTerminal() const { return m_bTerminal; }
    void show(const Recorder& recorder, int seconds);
    void summary(const Recorder& recorder, int seconds);

private:
    void showTable(const Recorder& recorder, int seconds);

    bool m_bTerminal;
    int m_nLines = 0; // of the table on the screen
};
