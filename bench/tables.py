"""The tables that the benchmark prints, in Markdown, and the page that holds them."""
import math
import re

from program import LINES_A_TURN, MODULES

kBegin, kEnd = '<!-- figures: begin -->\n', '<!-- figures: end -->\n'

kVariants = ['empty', 'empty-off', 'tracer', 'tracer-idle', 'tracer-noeval', 'monitoring']
kPlaces = ['none', 'others 1', 'others 100', 'others 10000', 'same file', 'elsewhere',
           'elsewhere, others', 'condition']


def geometric_mean(values):
    return math.exp(sum(math.log(v) for v in values) / len(values))


def make_table(head, rows):
    """Columns without any value are left out."""
    used = [i for i in range(len(head)) if any(row[i] for row in rows)]
    lines = [[head[i] for i in used], ['---'] * len(used)]
    lines += [[row[i] or '-' for i in used] for row in rows]
    return ''.join('| ' + ' | '.join(line) + ' |\n' for line in lines)


def show(value, form='%.2f'):
    return '' if value is None else form % value


def divide(a, b):
    return None if a is None or b is None else a / b


# --- the workloads ---


def workload_means(results):
    """{variant: geometric mean of its ratios to untraced}"""
    names = next(iter(results.values()))
    return {name: geometric_mean([times[name] / times['untraced'] for times in results.values()])
            for name in names}


def workload_details(name, results):
    """A table of one interpreter: each workload's ratios."""
    rows = [[workload] + [show(divide(times.get(v), times['untraced'])) for v in kVariants]
            for workload, times in results.items()]
    means = workload_means(results)
    rows.append(['geometric mean'] + [show(means.get(v)) for v in kVariants])
    return '%s\n\n%s' % (name, make_table(['ratio to untraced'] + kVariants, rows))


def workload_table(all_results):
    rows = []
    for name, results in all_results:
        means = workload_means(results)
        rows.append([name] + [show(means.get(v)) for v in kVariants] + [
            show(divide(means.get('tracer'), means.get('empty'))),
            show(divide(means.get('tracer-idle'), means.get('empty-off')))])
    return make_table(['interpreter'] + kVariants + ['tracer / empty', 'tracer-idle / empty-off'],
                      rows)


# --- breakpoints ---


class Figures(object):
    """The least values of one interpreter's breakpoint cases."""

    def __init__(self, results):
        self.results = results

    def get(self, case):
        return self.results[case]['min'] if case in self.results else None

    def ratio(self, case):
        """To the untraced hot function."""
        return divide(self.get(case), self.get('untraced'))

    def between(self, case, base):
        return divide(self.get(case), self.get(base))

    def difference(self, case, base, scale):
        return (self.get(case) - self.get(base)) * scale

    def noise(self):
        """How far the rounds of the untraced function lie apart: median to least."""
        return self.results['untraced']['median'] / self.results['untraced']['min']


def hot_table(all_figures):
    head = ['interpreter', 'debugger'] + kPlaces
    rows = []
    for name, figures in all_figures:
        for debugger, prefix in [('tracer', ''), ('with idle thread', 'idle '), ('bdb', 'bdb '),
                                 ('bdb, monitoring', 'bdb-mon ')]:
            ratios = [show(figures.ratio(prefix + place)) for place in kPlaces]
            if any(ratios):
                rows.append([name, debugger] + ratios)
        rows.append([name, 'empty function', show(figures.ratio('empty'))]
                    + [''] * (len(kPlaces) - 1))
    return make_table(head, rows)


def goal_columns(figures):
    """(heading, value as text, whether the goal is met)"""
    others = max(figures.between('others %d' % n, 'none') for n in (1, 100, 10000))
    same_file = figures.between('same file', 'none')
    line = figures.difference('elsewhere', 'empty', 1e9)
    hit = figures.difference('condition', 'none', LINES_A_TURN * 1e9)
    many_imports = figures.between('imports, 10000', 'imports, 1')
    setting = max(figures.get('set, others'), figures.get('set, loaded')) * 1e6
    kept = figures.difference('memory, breakpoint', 'memory, empty', 1)
    stop = figures.get('stop, tracer') * 1e6
    elsewhere_bdb = figures.between('bdb elsewhere', 'elsewhere')
    condition_bdb = figures.between('bdb condition', 'condition')
    return [
        ('others / none', show(others), others <= 1.05),
        ('same file / none', show(same_file), same_file <= 1.05),
        ('elsewhere, ns a line over empty', show(line, '%.0f'), line <= 60),
        ('x bdb', show(elsewhere_bdb, '%.0f'), elsewhere_bdb >= 10),
        ('condition, ns a hit', show(hit, '%.0f'), hit <= 500),
        ('x bdb ', show(condition_bdb, '%.0f'), condition_bdb >= 8),
        ('imports, 10000 / 1', show(many_imports), many_imports < 1.3),
        ('set_break, us', show(setting, '%.1f'), setting < 10),
        ('bytes a code object', show(kept, '%.0f'), kept < 200),
        ('line to callback, us', show(stop), stop < 1),
    ]


def goal_table(all_figures):
    """The figures with goals; one that is missed is in bold."""
    rows = []
    for name, figures in all_figures:
        columns = goal_columns(figures)
        rows.append([name] + [text if met else '**%s**' % text for _, text, met in columns]
                    + [show(figures.noise())])
    head = [heading.strip() for heading, _, _ in goal_columns(all_figures[0][1])]
    return make_table(['interpreter'] + head + ['noise'], rows)


def once_table(all_figures):
    us = 1e6
    rows = []
    for name, figures in all_figures:
        first = ['untraced', 'empty', 'tracer', 'breakpoint', 'bdb']
        rows.append(
            [name]
            + [show(figures.get('first call, ' + case) * us) for case in first]
            + [show(figures.get('set, ' + case) * us) for case in ('others', 'loaded', 'bdb')]
            + [show(figures.between('imports, ' + case, 'imports, untraced'))
               for case in ('empty', '1', '10000', '10000 missing', 'bdb 1', 'bdb 10000')]
            + [show(figures.get('stop, ' + case) * us) for case in ('floor', 'tracer', 'bdb')])
    head = (['interpreter'] + ['first call: ' + case + ', us' for case in first]
            + ['set one: in other files, us', 'in a loaded file, us', 'bdb, us']
            + ['%d imports: empty' % MODULES, '1', '10000', '10000 in missing files', 'bdb 1',
               'bdb 10000']
            + ['stop: floor, us', 'tracer, us', 'bdb, us'])
    return make_table(head, rows)


# --- all ---


def breakpoint_tables(breakpoints):
    figures = [(name, Figures(results)) for name, results in breakpoints]
    return '\n'.join([
        'Breakpoints, the goals (bold: missed):\n',
        goal_table(figures),
        'Hot function, ratio to the untraced program:\n',
        hot_table(figures),
        'What is paid once (imports: ratio to the untraced program):\n',
        once_table(figures)])


def all_tables(workloads, breakpoints):
    """The text between the marks of the page."""
    return '\n'.join([
        'Workloads, geometric mean of the ratios to the untraced program:\n',
        workload_table(workloads),
        breakpoint_tables(breakpoints)])


def replace_in_page(path, text):
    with open(path, encoding='utf-8') as source:
        page = source.read()
    pattern = re.escape(kBegin) + '.*' + re.escape(kEnd)
    new, count = re.subn(pattern, lambda match: kBegin + '\n' + text + '\n' + kEnd, page,
                         flags=re.DOTALL)
    if count != 1:
        raise SystemExit('%s: no place for the figures' % path)
    with open(path, 'w', encoding='utf-8') as out:
        out.write(new)
