/* hubconf's subcommands.  Each takes the arguments that follow its name
 * (argv[0] is the subcommand's name) and returns the exit status: 0 done,
 * 1 failure, 2 bad usage. */
#ifndef HUBCONF_HUBCONF_H_
#define HUBCONF_HUBCONF_H_

int hubconf_check(int argc, char **argv);
int hubconf_match(int argc, char **argv);

#endif
