"""How the scripts in Python answer --help, by their docstring, and refuse what they do not understand,
by how it begins, up to the colon.
"""
import argparse


class Parser(argparse.ArgumentParser):
    def __init__(self, text):
        self.text = text.strip() + "\n"
        self.synopsis = " ".join(text.split(": ")[0].split())
        super().__init__(prog=text.split()[0].rstrip(":"), usage=self.synopsis)

    def format_help(self):
        return self.text

    def error(self, message):
        self.exit(2, f"usage: {self.synopsis} ({message})\n")

    def parse_one_of(self, arguments, *options):
        """For a script that is given nothing, or one of these options alone."""
        if arguments == ["--help"]:
            self.print_help()
            self.exit()
        if arguments and (len(arguments) > 1 or arguments[0] not in options):
            self.error(f"not understood: {' '.join(arguments)}")
